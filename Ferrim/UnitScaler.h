#pragma once
// Scene units for map parameters. Sizes, distances and radii of maps that
// measure the scene (a triplanar projection's size, a distance map's range)
// are authored in one length unit; the renderer's scene may use another. The
// scaler holds both and converts the registered parameters once, when a map
// builds its evaluator, so per-sample code only ever sees scene units.
//
// Which parameters are lengths is a table by record type and property name
// (registerSceneUnitProperties); setupMapUnitScaler fills it for this
// library's maps and runs by itself before the first lookup. A property that
// is not registered is read as stored.
#include "Ferrim/Export.h"
#include "QuelinLib/DataObjects.h"

namespace Quelin {

class FERRIM_EXPORT UnitScaler {
public:
    enum class Unit : int { MILLIMETER = 0, CENTIMETER = 1, METER = 2, INCH = 3, FOOT = 4 };

    /// Parameters authored in `parameterUnit`, scene measured in `sceneUnit`.
    explicit UnitScaler(Unit parameterUnit = Unit::METER, Unit sceneUnit = Unit::METER);

    /// Exact lengths of the units in metres (the inch is 0.0254 m by definition).
    static double metersPerUnit(Unit unit);
    /// Scene units per parameter unit.
    float factor() const { return mFactor; }
    Unit parameterUnit() const { return mParameterUnit; }
    Unit sceneUnit() const { return mSceneUnit; }

    float toScene(float v) const { return v * mFactor; }

    /// A float, 2- or 3-vector property of a record in scene units: converted
    /// when it is registered as a length for the record's type, as stored otherwise.
    float getFloat(GenericDataObject const& data, StringView name) const;
    Vector2 getVector2(GenericDataObject const& data, StringView name) const;
    Pos getVector3(GenericDataObject const& data, StringView name) const;

    /// The scaler that evaluators are built with; the renderer sets it before
    /// it builds them (meters to meters until then).
    static UnitScaler current();
    static void setCurrent(UnitScaler const& scaler);

    /// Marks properties of the record type `typeName` as lengths. Adding a
    /// name twice is harmless; maps outside this library call it from their
    /// own start-up.
    static void registerSceneUnitProperties(StringView typeName, std::initializer_list<StringView> properties);
    static bool isSceneUnitProperty(StringView typeName, StringView property);
    /// The registered lengths of a type, sorted.
    static Stack<String> sceneUnitProperties(StringView typeName);

private:
    Unit mParameterUnit, mSceneUnit;
    float mFactor;
};

/// Registers the length parameters of this library's maps with the unit
/// scaler; idempotent.
FERRIM_EXPORT void setupMapUnitScaler();

} // namespace Quelin

#define FERRIM_UNIT_SCALER_CONCAT2(a, b) a##b
#define FERRIM_UNIT_SCALER_CONCAT(a, b) FERRIM_UNIT_SCALER_CONCAT2(a, b)
/// At namespace scope beside a map's registration:
///   FERRIM_REGISTER_SCENE_UNITS("Zatho.SomeMap", "radius", "distance");
#define FERRIM_REGISTER_SCENE_UNITS(typeName, ...)                                                                     \
    static bool const FERRIM_UNIT_SCALER_CONCAT(sFerrimSceneUnits_, __LINE__) =                                      \
        (::Quelin::UnitScaler::registerSceneUnitProperties(typeName, {__VA_ARGS__}), true)
