#include "Ferrim/maps/GradientMap.h"

#include <algorithm>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

constexpr float INV_TWO_PI = 0.15915494f;
constexpr float TWO_OVER_PI = 0.63661975f;
constexpr float HALF_PI = 1.5707964f;

SharedPtr<DataObjectDefinition const> buildStopDefinition() {
    ShadingDataObjectBuilder b;
    b.addString("name", String(), "Name", "Name of the stop");
    b.addColorOrMap("color", Rgb(0, 0, 0), "Color", "Colour (or map) of the stop");
    b.addFloat("position", 0.f, "Position", "Place of the stop along the gradient, 0 to 1")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
    b.addEnum("interpolation", GradientMap::Data::interpolationType(), int(GradientMap::Interpolation::Linear),
              "Interpolation", "Easing toward the next stop, used when custom interpolation is on");
    return b.build("Zatho.GradientStop");
}

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addUvMapper();
    b.addEnum("type", GradientMap::Data::typeType(), int(GradientMap::Type::Linear), "Type",
              "Shape of the gradient over the UV tile");
    b.addEnum("defaultInterpolation", GradientMap::Data::interpolationType(), int(GradientMap::Interpolation::Linear),
              "Interpolation", "Easing between stops");
    b.addBool("customInterpolation", false, "Custom interpolation",
              "Use each stop's own interpolation instead of the common one");
    ListPropertyValue stops;
    stops.push_back(GradientMap::GradientStop::make("Stop #" + std::to_string(1), Rgb(0, 0, 0), 0.f));
    stops.push_back(GradientMap::GradientStop::make("Stop #" + std::to_string(2), Rgb(0.5f, 0.5f, 0.5f), 0.5f));
    stops.push_back(GradientMap::GradientStop::make("Stop #" + std::to_string(3), Rgb(1, 1, 1), 1.f));
    b.addList("stops", GradientMap::GradientStop::definition(), "Stops", "Colour stops of the gradient")
        .setDefault(std::move(stops));
    b.addColorOrMap("sourceMap", Rgb(0, 0, 0), "Source map", "Map whose mono value is the gradient parameter (type mapped)")
        .setMetadata(Metadata::UI_ENABLED_IF,
                     MetadataPredicate{"type == mapped", [](GenericDataObject const& data) {
                                           return data.get<GradientMap::Type>("type") == GradientMap::Type::Mapped;
                                       }});
    return b.build("Zatho.GradientMap");
}

inline float length3(float x, float y, float z) { return std::sqrt(x * x + y * y + z * z); }

} // namespace

SharedPtr<TypeDefinition const> const& GradientMap::Data::typeType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.GradientMap.Type", {{0, "box"}, {1, "diagonal"}, {2, "linear"}, {3, "mapped"}, {4, "pong"},
                                   {5, "radial"}, {6, "spiral"}, {7, "sweep"}, {8, "tartan"}});
    return t;
}

SharedPtr<TypeDefinition const> const& GradientMap::Data::interpolationType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.GradientMap.Interpolation",
        {{0, "ease_in"}, {1, "ease_out"}, {2, "ease_in_out"}, {3, "linear"}, {4, "solid"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& GradientMap::GradientStop::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildStopDefinition();
    return d;
}

GenericDataObject GradientMap::GradientStop::make(String name, Rgb const& color, float position,
                                                  Interpolation interpolation) {
    GenericDataObject stop(definition());
    stop.set("name", std::move(name));
    GenericDataObject c = stop.get<GenericDataObject>("color");
    c.set("color", color);
    stop.set("color", std::move(c));
    stop.set("position", position);
    stop.set("interpolation", interpolation);
    return stop;
}

SharedPtr<DataObjectDefinition const> const& GradientMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

GradientMap::GradientMap() : IMap(Data::definition()) {}

SharedPtr<Entity> GradientMap::createNewInstance() const { return makeSharedPtr<GradientMap>(); }

Optional<int> GradientMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult GradientMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    Type const type = d.get<Type>("type");
    Interpolation const defaultInterpolation = d.get<Interpolation>("defaultInterpolation");
    bool const custom = d.get<bool>("customInterpolation");
    auto const& list = std::get<ListPropertyValue>(d.getValue("stops"));
    Stack<Evaluator::Stop> stops;
    stops.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        GenericDataObject const& s = list[i];
        stops.push_back({s.get<float>("position"), custom ? s.get<Interpolation>("interpolation") : defaultInterpolation,
                         MapsDetail::colorOrMapEvaluator(s, "color")});
    }
    ColorOrMap::Evaluator source;
    if (type == Type::Mapped) source = MapsDetail::colorOrMapEvaluator(d, "sourceMap");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<Evaluator>(type, MapsDetail::evaluatorUvMapper(d), std::move(source),
                                                std::move(stops), defaultInterpolation);
    return result;
}

GradientMap::Evaluator::Evaluator(Type type, SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator sourceMap,
                                  Stack<Stop> stops, Interpolation defaultInterpolation)
    : mType(type), mUvw(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()),
      mSourceMap(std::move(sourceMap)), mStops(std::move(stops)) {
    std::stable_sort(mStops.begin(), mStops.end(), [](Stop const& a, Stop const& b) { return a.position < b.position; });
    if (mStops.empty()) mStops.push_back({0.5f, defaultInterpolation, ColorOrMap::Evaluator()});
}

float GradientMap::Evaluator::interpolationWeight(Interpolation interpolation, float f) {
    switch (interpolation) {
    case Interpolation::EaseIn: {
        float const f2 = f * f;
        return f2 * f2 * f;
    }
    case Interpolation::EaseOut: {
        float const g = 1.f - f, g2 = g * g;
        return 1.f - g2 * g2 * g;
    }
    case Interpolation::EaseInOut: {
        float const s = clamp(f, 0.f, 1.f);
        return clamp(((6.f * s - 15.f) * s + 10.f) * (s * s * s), 0.f, 1.f);
    }
    case Interpolation::Linear: return f;
    case Interpolation::Solid: return 0.f;
    }
    Detail::throwStopException("maps/GradientMap", 73);
}

float GradientMap::Evaluator::parameter(Pos const& p, IShadeContext const& context, MapCache* cache) const {
    float const u = p.x, v = p.y, w = p.z;
    switch (mType) {
    case Type::Box: return std::max(std::fabs(2.f * (u - 0.5f)), std::fabs(2.f * (v - 0.5f)));
    case Type::Diagonal: return std::fabs(u - v);
    case Type::Linear: return v;
    case Type::Mapped: return mSourceMap.evalMono(context, cache).value;
    case Type::Pong: {
        float const hi = std::max(u, v);
        return hi == 0.f ? 0.f : std::min(u, v) / hi;
    }
    case Type::Radial: return clamp(length3(2.f * (u - 0.5f), 2.f * (v - 0.5f), 2.f * w), 0.f, 1.f);
    case Type::Spiral: {
        float const dx = 2.f * (u - 0.5f), dy = 2.f * (v - 0.5f), dz = 2.f * w;
        float const a = std::acos(dx / length3(dx, dy, dz)) * INV_TWO_PI;
        return dy >= 0.f ? a : 1.f - a;
    }
    case Type::Sweep: return (HALF_PI - std::acos(std::fabs(u / length3(u, v, w)))) * TWO_OVER_PI;
    case Type::Tartan: return 1.f - 2.f * std::min(std::fabs(u - 0.5f), std::fabs(v - 0.5f));
    }
    Detail::throwStopException("maps/GradientMap", 269);
}

Optional<Pos> GradientMap::Evaluator::wrappedUvw(IShadeContext const& context) const {
    WrappedUvw const wrapped = mUvw->wrap(mUvw->computeUvw(context));
    if (!wrapped.inside) return std::nullopt;
    Pos const& p = wrapped.uvw;
    return Pos(p.x - std::floor(p.x), p.y - std::floor(p.y), p.z);
}

template <typename R, typename ValueOf> R GradientMap::Evaluator::lookup(float t, ValueOf const& valueOf) const {
    auto const right = std::lower_bound(mStops.begin(), mStops.end(), t,
                                        [](Stop const& s, float x) { return s.position < x; });
    if (right == mStops.begin()) return valueOf(*right);
    if (right == mStops.end()) return valueOf(mStops.back());
    Stop const& left = *(right - 1);
    float const f = (t - left.position) / (right->position - left.position);
    float const weight = interpolationWeight(left.interpolation, f);
    if (weight == 0.f) return valueOf(left);
    if (weight == 1.f) return valueOf(*right);
    return MapsDetail::mix(valueOf(left), valueOf(*right), weight);
}

RgbAlpha GradientMap::Evaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    auto const p = wrappedUvw(context);
    if (!p) return {0.f, 0.f, 0.f, 1.f};
    return lookup<RgbAlpha>(parameter(*p, context, cache),
                            [&](Stop const& s) { return s.color.evalColor(context, cache); });
}

MonoAlpha GradientMap::Evaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    auto const p = wrappedUvw(context);
    if (!p) return {0.f, 1.f};
    return lookup<MonoAlpha>(parameter(*p, context, cache),
                             [&](Stop const& s) { return s.color.evalMono(context, cache); });
}

Dir GradientMap::Evaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    auto const p = wrappedUvw(context);
    if (!p) return Dir();
    return lookup<Dir>(parameter(*p, context, cache), [&](Stop const& s) { return s.color.evalBump(context, cache); });
}

FERRIM_REGISTER_ENTITY(GradientMap);
static Ferrim::TypeRegistrar const sGradientStopRegistrar([] { return GradientMap::GradientStop::definition(); });

} // namespace Quelin
