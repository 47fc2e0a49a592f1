#pragma once
// Material parameters that a map may replace or modulate.
#include "Ferrim/IMap.h"

namespace Quelin {

/// Visits the named fields of a value type, for serialisation in any form.
class FERRIM_EXPORT SerializationVisitor : public Polymorphic {
public:
    virtual void visit(StringView key, Rgb& value) = 0;
    virtual void visit(StringView key, float& value) = 0;
    virtual void visit(StringView key, bool& value) = 0;
    virtual void visit(StringView key, int& value) = 0;
    virtual void visit(StringView key, Variant<Rgb, float>& value) = 0;
    virtual void visit(StringView key, EntityHolder<IMap>& value) = 0;
    /// An enumeration stored as its int value; forms that can show labels
    /// (JSON) use the labels of `type`.
    virtual void visitEnum(StringView key, int& value, TypeDefinition const& type) {
        (void)type;
        visit(key, value);
    }
};

/// Writes the visited fields as members of a JSON object (colours as arrays,
/// enumerations by label, maps inline with their class, an empty map as null).
class FERRIM_EXPORT JsonWriteVisitor : public SerializationVisitor {
public:
    explicit JsonWriteVisitor(nlohmann::json& target) : mTarget(target) {}
    void visit(StringView key, Rgb& value) override;
    void visit(StringView key, float& value) override;
    void visit(StringView key, bool& value) override;
    void visit(StringView key, int& value) override;
    void visit(StringView key, Variant<Rgb, float>& value) override;
    void visit(StringView key, EntityHolder<IMap>& value) override;
    void visitEnum(StringView key, int& value, TypeDefinition const& type) override;

private:
    nlohmann::json& mTarget;
};

/// Reads the visited fields from a JSON object. Missing keys keep their
/// values; the first wrong value is kept as an error naming its key. After
/// the visit, `finish` also refuses keys that no field claimed.
class FERRIM_EXPORT JsonReadVisitor : public SerializationVisitor {
public:
    explicit JsonReadVisitor(nlohmann::json const& source) : mSource(source) {}
    void visit(StringView key, Rgb& value) override;
    void visit(StringView key, float& value) override;
    void visit(StringView key, bool& value) override;
    void visit(StringView key, int& value) override;
    void visit(StringView key, Variant<Rgb, float>& value) override;
    void visit(StringView key, EntityHolder<IMap>& value) override;
    void visitEnum(StringView key, int& value, TypeDefinition const& type) override;
    Expected<void> finish() const;

private:
    nlohmann::json const* find(StringView key);
    void fail(StringView key, String const& problem);
    nlohmann::json const& mSource;
    Stack<String> mVisited;
    Optional<String> mError;
};

/// The renderer's working colour spaces.
enum class ColorSpace : int { LinearSrgb = 0, AcesCg = 1, Aces2065 = 2, Rec2020 = 3, DisplayP3 = 4 };

/// Conversions between linear Rec.709 (D65) and a working space. Spaces with
/// another white (the ACES ones) are reached through a Bradford adaptation,
/// so Rec.709 white (1, 1, 1) stays (1, 1, 1). Material slots convert their
/// colours with `fromRec709` twice: once clamped below at 0 (radiance-like
/// use) and once clamped to [0, 1] (reflectance-like use); `toRec709` is its
/// inverse, for showing working colours.
struct FERRIM_EXPORT ColorSpaceTransform {
    ColorSpace space;
    char const* name;
    Matrix33 fromRec709;   ///< linear Rec.709 to the working space
    Matrix33 toRec709;     ///< the working space back to linear Rec.709

    static StaticArray<ColorSpaceTransform, 5> const COLOR_SPACES;
    /// The working space of the current render; linear sRGB by default.
    static ColorSpaceTransform const* sCurrent;
};

/// A colour that an optional map replaces.
struct FERRIM_EXPORT ColorOrMap {
    Rgb color;
    EntityHolder<IMap> map;
    bool mapOn = true;

    /// The record type "Zatho.ColorOrMap" ("color", "map", "mapOn").
    static SharedPtr<DataObjectDefinition const> const& definition();
    static ColorOrMap fromData(GenericDataObject const& data);
    GenericDataObject toData() const;
    bool operator==(ColorOrMap const& o) const { return color == o.color && map == o.map && mapOn == o.mapOn; }

    class FERRIM_EXPORT Evaluator {
    public:
        Evaluator() = default;
        explicit Evaluator(ColorOrMap const& value);
        RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const {
            return mEvaluator ? mEvaluator->evalColor(context, cache) : mColor;
        }
        MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const {
            return mEvaluator ? mEvaluator->evalMono(context, cache) : mMono;
        }
        Dir evalBump(IShadeContext const& context, MapCache* cache) const {
            return mEvaluator ? mEvaluator->evalBump(context, cache) : Dir();
        }
        bool isConstant() const { return !mEvaluator; }
        RgbAlpha const& getColor() const { return mColor; }
        MonoAlpha const& getMono() const { return mMono; }
        SharedPtr<IMapEvaluator> const& getMapEvaluator() const { return mEvaluator; }

    private:
        RgbAlpha mColor{0, 0, 0, 1};
        MonoAlpha mMono{0, 1};
        SharedPtr<IMapEvaluator> mEvaluator;
    };
};

FERRIM_EXPORT void defineSerialization(SerializationVisitor& visitor, ColorOrMap& value);
FERRIM_EXPORT nlohmann::json toJson(ColorOrMap const& value);
/// Reads the keys present in `json`; on error `value` is unchanged.
FERRIM_EXPORT Expected<void> fromJson(nlohmann::json const& json, ColorOrMap& value);

/// A material parameter: a base value blended with an optional map.
class FERRIM_EXPORT MaterialMapSlot {
public:
    enum class Interpolation : std::int32_t { Override = 0, Mix = 1, Add = 2, Subtract = 3 };

    Rgb mapTint{1, 1, 1};
    Variant<Rgb, float> color{Rgb(0, 0, 0)};
    EntityHolder<IMap> map;
    bool mapOn = true;
    float intensityMultiplier = 1.f;
    Interpolation interpolationMode = Interpolation::Override;
    float alphaBlendMultiplier = 1.f;

    MaterialMapSlot() = default;
    MaterialMapSlot(Variant<Rgb, float> const& color, EntityHolder<IMap> const& map, bool mapOn, Rgb const& mapTint,
                    float intensityMultiplier, Interpolation interpolationMode, float alphaBlendMultiplier);

    /// The base value as a colour (a number fills all three channels).
    Rgb getBaseColor() const;

    /// The record type "Zatho.MaterialMapSlot".
    static SharedPtr<DataObjectDefinition const> const& definition();
    static SharedPtr<TypeDefinition const> const& interpolationType();
    /// Reads a slot from its record; the record's "colorIsNumber" flag picks the variant.
    static MaterialMapSlot fromData(GenericDataObject const& data);
    /// Throws `Exception` for values the record refuses (negative multipliers).
    GenericDataObject toData() const;

    /// Channels of the base colour (a number widened to three equal channels),
    /// map identity, switch, tint and mode compare exactly; the two multipliers
    /// differ only when one is less or greater than the other, so a NaN there
    /// equals anything.
    bool operator==(MaterialMapSlot const& o) const;
    bool operator!=(MaterialMapSlot const& o) const { return !(*this == o); }

    class FERRIM_EXPORT Evaluator {
    public:
        explicit Evaluator(MaterialMapSlot const& slot);
        /// Base blended with the map, in the slot's colour.
        Rgb evalColor(IShadeContext const& context, MapCache* cache) const;
        /// The same in the working colour space, clamped below at 0.
        Rgb evalWorkingColor(IShadeContext const& context, MapCache* cache) const;
        /// The same in the working colour space, clamped to [0, 1].
        Rgb evalClampedColor(IShadeContext const& context, MapCache* cache) const;
        float evalMono(IShadeContext const& context, MapCache* cache) const;
        float evalClampedMono(IShadeContext const& context, MapCache* cache) const;
        bool hasMap() const { return bool(mMapEvaluator); }

    private:
        SharedPtr<IMapEvaluator> mMapEvaluator;
        Rgb mTint;
        float mTintMono;
        float mBlend;
        Interpolation mMode;
        Rgb mBase;
        Rgb mBaseWorking;
        Rgb mBaseClamped;
        float mBaseMono;
        float mBaseMonoClamped;
        Matrix33 mToWorking;
        Matrix33 mToClamped;
    };
};

FERRIM_EXPORT bool isValid(MaterialMapSlot const& slot);
FERRIM_EXPORT void defineSerialization(SerializationVisitor& visitor, MaterialMapSlot& slot);
FERRIM_EXPORT nlohmann::json toJson(MaterialMapSlot const& slot);
/// Reads the keys present in `json`; on error `slot` is unchanged.
FERRIM_EXPORT Expected<void> fromJson(nlohmann::json const& json, MaterialMapSlot& slot);

/// The renderer's record of excluded scene nodes.
struct ExcludedNodes {
    Stack<EntityHolder<Entity>> nodes;
    bool isInclude = false;  ///< the list names the nodes that are included
};

/// Resolves whether handles still point at live entities.
class IEntityHandleScope : public Polymorphic {
public:
    virtual bool contains(Entity const& entity) const = 0;
};

/// A set of scene nodes that either includes or excludes.
class FERRIM_EXPORT IncludeExcludeSet {
public:
    static IncludeExcludeSet fromExcludedNodes(ExcludedNodes const& nodes);
    ExcludedNodes toExcludedNodes() const;
    void removeInvalidNodes(IEntityHandleScope const& scope);
    /// Whether the set lets `entity` through.
    bool applies(Entity const& entity) const;
    Stack<EntityHolder<Entity>> const& getNodes() const { return mNodes; }
    bool isInclude() const { return mIsInclude; }

private:
    Stack<EntityHolder<Entity>> mNodes;
    bool mIsInclude = false;
};

} // namespace Quelin
