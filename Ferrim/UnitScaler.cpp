#include "Ferrim/UnitScaler.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

namespace Quelin {

namespace {

struct Registry {
    Mutex mutex;
    std::map<String, std::set<String>, std::less<>> properties;
    UnitScaler current;
};

Registry& registry() {
    static Registry r;
    return r;
}

void ensureSetUp() {
    static std::once_flag once;
    std::call_once(once, [] { setupMapUnitScaler(); });
}

} // namespace

UnitScaler::UnitScaler(Unit parameterUnit, Unit sceneUnit)
    : mParameterUnit(parameterUnit), mSceneUnit(sceneUnit),
      mFactor(float(metersPerUnit(parameterUnit) / metersPerUnit(sceneUnit))) {}

double UnitScaler::metersPerUnit(Unit unit) {
    switch (unit) {
    case Unit::MILLIMETER: return 0.001;
    case Unit::CENTIMETER: return 0.01;
    case Unit::METER: return 1.0;
    case Unit::INCH: return 0.0254;
    case Unit::FOOT: return 0.3048;
    }
    return 1.0;  // an unknown enumerator (a corrupt cast) reads as metres
}

float UnitScaler::getFloat(GenericDataObject const& data, StringView name) const {
    float const v = data.get<float>(name);
    return isSceneUnitProperty(data.getName(), name) ? v * mFactor : v;
}

Vector2 UnitScaler::getVector2(GenericDataObject const& data, StringView name) const {
    Vector2 const v = data.get<Vector2>(name);
    return isSceneUnitProperty(data.getName(), name) ? v * mFactor : v;
}

Pos UnitScaler::getVector3(GenericDataObject const& data, StringView name) const {
    Pos const v = data.get<Pos>(name);
    return isSceneUnitProperty(data.getName(), name) ? Pos(v.x * mFactor, v.y * mFactor, v.z * mFactor) : v;
}

UnitScaler UnitScaler::current() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    return r.current;
}

void UnitScaler::setCurrent(UnitScaler const& scaler) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.current = scaler;
}

void UnitScaler::registerSceneUnitProperties(StringView typeName, std::initializer_list<StringView> properties) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto& set = r.properties[String(typeName)];
    for (StringView p : properties) set.emplace(p);
}

bool UnitScaler::isSceneUnitProperty(StringView typeName, StringView property) {
    ensureSetUp();
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto const it = r.properties.find(typeName);
    return it != r.properties.end() && it->second.count(String(property)) != 0;
}

Stack<String> UnitScaler::sceneUnitProperties(StringView typeName) {
    ensureSetUp();
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto const it = r.properties.find(typeName);
    if (it == r.properties.end()) return {};
    return Stack<String>(it->second.begin(), it->second.end());
}

void setupMapUnitScaler() {
    // Lengths in the scene: the projection size and the per-axis offsets of a triplanar map.
    UnitScaler::registerSceneUnitProperties("Zatho.TriplanarMap", {"size", "offsetX", "offsetY", "offsetZ"});
    // The scene maps' ranges and radii (a wireframe's width only counts in world units).
    UnitScaler::registerSceneUnitProperties("Zatho.DistanceMap", {"nearDistance", "farDistance"});
    UnitScaler::registerSceneUnitProperties("Zatho.AmbientOcclusionMap", {"radius"});
    UnitScaler::registerSceneUnitProperties("Zatho.CurvatureMap", {"radius"});
    UnitScaler::registerSceneUnitProperties("Zatho.RoundEdgesMap", {"radius"});
    UnitScaler::registerSceneUnitProperties("Zatho.WireframeMap", {"width"});
}

} // namespace Quelin
