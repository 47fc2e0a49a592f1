#include "Ferrim/maps/MiscMaps.h"

#include <charconv>
#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

namespace {

/// Picks one of several inputs per point; `Choose` maps a context to an index in range.
template <typename Choose> class ChoiceEvaluator final : public IMapEvaluator {
public:
    ChoiceEvaluator(Stack<ColorOrMap::Evaluator> inputs, Choose choose)
        : mInputs(std::move(inputs)), mChoose(std::move(choose)) {}
    RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override { return pick(c, cache).evalColor(c, cache); }
    MonoAlpha evalMono(IShadeContext const& c, MapCache* cache) const override { return pick(c, cache).evalMono(c, cache); }
    Dir evalBump(IShadeContext const& c, MapCache* cache) const override { return pick(c, cache).evalBump(c, cache); }

private:
    ColorOrMap::Evaluator const& pick(IShadeContext const& c, MapCache* cache) const { return mInputs[mChoose(c, cache)]; }
    Stack<ColorOrMap::Evaluator> mInputs;
    Choose mChoose;
};

template <typename Choose> IMap::OptimizedResult makeChoice(Stack<ColorOrMap::Evaluator> inputs, Choose choose) {
    // Inputs that are all the same constant need no choice.
    bool same = true;
    for (auto const& input : inputs) same = same && MapsDetail::sameConstant(input, inputs.front());
    if (same) return MapsDetail::passThrough(inputs.front());
    IMap::OptimizedResult r;
    r.evaluator = makeSharedPtr<ChoiceEvaluator<Choose>>(std::move(inputs), std::move(choose));
    return r;
}

/// i mod n in [0, n).
inline std::size_t wrapIndex(std::int64_t i, std::size_t n) {
    std::int64_t const m = std::int64_t(n);
    return std::size_t(((i % m) + m) % m);
}

} // namespace

// ----------------------------------------------------------- FrontBackMap

SharedPtr<DataObjectDefinition const> const& FrontBackMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("front", Rgb(1, 1, 1), "Front", "Shown on front faces");
        b.addColorOrMap("back", Rgb(0, 0, 0), "Back", "Shown on back faces");
        return b.build("Zatho.FrontBackMap");
    }();
    return d;
}

FrontBackMap::FrontBackMap() : IMap(Data::definition()) {}
SharedPtr<Entity> FrontBackMap::createNewInstance() const { return makeSharedPtr<FrontBackMap>(); }

IMap::OptimizedResult FrontBackMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    Stack<ColorOrMap::Evaluator> inputs{MapsDetail::colorOrMapEvaluator(getData(), "front"),
                                        MapsDetail::colorOrMapEvaluator(getData(), "back")};
    return makeChoice(std::move(inputs), [](IShadeContext const& c, MapCache*) { return std::size_t(c.isBackFace()); });
}

FERRIM_REGISTER_ENTITY(FrontBackMap);

// -------------------------------------------------------------- SelectMap

SharedPtr<TypeDefinition const> const& SelectMap::Data::sourceType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.SelectMap.Source", {{0, "Index"}, {1, "IndexMap"}, {2, "ObjectId"}, {3, "InstanceId"},
                                   {4, "MaterialNameHash"}, {5, "FaceIndex"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& SelectMap::Data::inputDefinition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("input", Rgb(0, 0, 0), "Input", "A colour or map to choose");
        return b.build("Zatho.SelectMapInput");
    }();
    return d;
}

SharedPtr<DataObjectDefinition const> const& SelectMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addList("inputs", inputDefinition(), "Inputs", "The inputs to choose from, in index order");
        b.addEnum("source", sourceType(), int(Source::Index), "Source", "Where the index of the chosen input comes from");
        b.addInt("index", 0, "Index", "The fixed index (source Index); wraps around the number of inputs")
            .setMetadata(Metadata::UI_ENABLED_IF, MetadataPredicate{"source == Index", [](GenericDataObject const& d) {
                                                                        return d.get<Source>("source") == Source::Index;
                                                                    }});
        b.addMap("indexMap", "Index map", "A map whose mono value, rounded down, is the index (source IndexMap)")
            .setMetadata(Metadata::UI_ENABLED_IF, MetadataPredicate{"source == IndexMap", [](GenericDataObject const& d) {
                                                                        return d.get<Source>("source") == Source::IndexMap;
                                                                    }});
        return b.build("Zatho.SelectMap");
    }();
    return d;
}

SelectMap::SelectMap() : IMap(Data::definition()) {}
SharedPtr<Entity> SelectMap::createNewInstance() const { return makeSharedPtr<SelectMap>(); }

void SelectMap::addInput(Rgb const& color) {
    GenericDataObject item(Data::inputDefinition());
    GenericDataObject input = item.get<GenericDataObject>("input");
    input.set("color", color);
    item.set("input", std::move(input));
    ListPropertyValue list = get<ListPropertyValue>("inputs");
    list.push_back(std::move(item));
    set("inputs", std::move(list));
}

std::uint32_t SelectMap::hashName(StringView name) {
    std::uint32_t h = 2166136261u;
    for (char const ch : name) h = (h ^ std::uint8_t(ch)) * 16777619u;
    return h;
}

IMap::OptimizedResult SelectMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    ListPropertyValue const list = get<ListPropertyValue>("inputs");
    if (list.empty()) return makeConstantResult(RgbAlpha(0.f, 0.f, 0.f, 1.f));
    Stack<ColorOrMap::Evaluator> inputs;
    for (std::size_t i = 0; i < list.size(); ++i) inputs.push_back(MapsDetail::inputEvaluator(list[i].get<GenericDataObject>("input")));
    std::size_t const n = inputs.size();
    Source source = get<Source>("source");
    SharedPtr<IMapEvaluator> indexMap;
    std::int64_t fixed = get<int>("index");
    if (source == Source::IndexMap) {
        auto const map = get<EntityHolder<IMap>>("indexMap");
        OptimizedResult r = map ? map->getEvaluator() : makeConstantResult(RgbAlpha(0.f, 0.f, 0.f, 1.f));
        if (r.hasConstant) {
            float const v = std::floor(r.constantMono.value);
            fixed = std::isfinite(v) && std::fabs(v) < 1e15f ? std::int64_t(v) : 0;
            source = Source::Index;
        } else {
            indexMap = std::move(r.evaluator);
        }
    }
    switch (source) {
    case Source::Index: return MapsDetail::passThrough(inputs[wrapIndex(fixed, n)]);
    case Source::IndexMap:
        return makeChoice(std::move(inputs), [n, indexMap](IShadeContext const& c, MapCache* cache) {
            float const v = std::floor(indexMap->evalMono(c, cache).value);
            // NaN and values beyond 2^62 pick the first input.
            return std::fabs(v) < 4.6e18f ? wrapIndex(std::int64_t(v), n) : std::size_t(0);
        });
    case Source::ObjectId:
        return makeChoice(std::move(inputs), [n](IShadeContext const& c, MapCache*) { return wrapIndex(c.getObjectId(), n); });
    case Source::InstanceId:
        return makeChoice(std::move(inputs), [n](IShadeContext const& c, MapCache*) { return wrapIndex(c.getInstanceId(), n); });
    case Source::MaterialNameHash:
        return makeChoice(std::move(inputs), [n](IShadeContext const& c, MapCache*) {
            return std::size_t(hashName(c.getMaterialName()) % n);
        });
    case Source::FaceIndex:
        return makeChoice(std::move(inputs), [n](IShadeContext const& c, MapCache*) { return wrapIndex(c.getFaceIndex(), n); });
    }
    Detail::throwStopException("maps/MiscMaps", __LINE__);
}

FERRIM_REGISTER_ENTITY(SelectMap);
static Ferrim::TypeRegistrar const sSelectInputRegistrar([] { return SelectMap::Data::inputDefinition(); });

// ----------------------------------------------------------- RaySwitchMap

SharedPtr<DataObjectDefinition const> const& RaySwitchMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("camera", Rgb(0.5f, 0.5f, 0.5f), "Camera", "Seen by camera rays (and light rays)");
        b.addColorOrMap("reflection", Rgb(0.5f, 0.5f, 0.5f), "Reflection", "Seen by reflection rays");
        b.addColorOrMap("refraction", Rgb(0.5f, 0.5f, 0.5f), "Refraction", "Seen by refraction rays");
        b.addColorOrMap("gi", Rgb(0.5f, 0.5f, 0.5f), "GI", "Seen by diffuse (global illumination) rays");
        b.addColorOrMap("shadow", Rgb(0.5f, 0.5f, 0.5f), "Shadow", "Seen by shadow rays");
        return b.build("Zatho.RaySwitchMap");
    }();
    return d;
}

RaySwitchMap::RaySwitchMap() : IMap(Data::definition()) {}
SharedPtr<Entity> RaySwitchMap::createNewInstance() const { return makeSharedPtr<RaySwitchMap>(); }

IMap::OptimizedResult RaySwitchMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    GenericDataObject const& d = getData();
    // In RayKind order: camera, reflection, refraction, diffuse, shadow, light.
    Stack<ColorOrMap::Evaluator> inputs{
        MapsDetail::colorOrMapEvaluator(d, "camera"), MapsDetail::colorOrMapEvaluator(d, "reflection"),
        MapsDetail::colorOrMapEvaluator(d, "refraction"), MapsDetail::colorOrMapEvaluator(d, "gi"),
        MapsDetail::colorOrMapEvaluator(d, "shadow")};
    inputs.push_back(inputs.front());
    return makeChoice(std::move(inputs), [](IShadeContext const& c, MapCache*) {
        auto const kind = std::size_t(c.getRayKind());
        return kind <= std::size_t(RayKind::Light) ? kind : std::size_t(0);
    });
}

FERRIM_REGISTER_ENTITY(RaySwitchMap);

// -------------------------------------------------------- UserPropertyMap

SharedPtr<DataObjectDefinition const> const& UserPropertyMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addString("propertyName", {}, "Property", "Name of the object's user property");
        b.addColorOrMap("default", Rgb(0, 0, 0), "Default", "Shown where the object has no such property");
        return b.build("Zatho.UserPropertyMap");
    }();
    return d;
}

UserPropertyMap::UserPropertyMap() : IMap(Data::definition()) {}
SharedPtr<Entity> UserPropertyMap::createNewInstance() const { return makeSharedPtr<UserPropertyMap>(); }

Optional<Rgb> UserPropertyMap::toColor(UserPropertyValue const& value) {
    if (auto const* f = std::get_if<float>(&value)) return Rgb(*f);
    if (auto const* c = std::get_if<Rgb>(&value)) return *c;
    StringView text = std::get<String>(value);
    float v[3];
    int count = 0;
    auto skip = [&] {
        while (!text.empty() && (text.front() == ' ' || text.front() == ',' || text.front() == '\t')) text.remove_prefix(1);
    };
    skip();
    while (!text.empty()) {
        if (count == 3) return std::nullopt;
        auto const [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v[count]);
        if (ec != std::errc()) return std::nullopt;
        text.remove_prefix(std::size_t(end - text.data()));
        ++count;
        skip();
    }
    if (count == 1) return Rgb(v[0]);
    if (count == 3) return Rgb(v[0], v[1], v[2]);
    return std::nullopt;
}

namespace {
class UserPropertyEvaluator final : public IMapEvaluator {
public:
    UserPropertyEvaluator(String name, ColorOrMap::Evaluator fallback) : mName(std::move(name)), mDefault(std::move(fallback)) {}
    RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override {
        if (auto const v = lookup(c)) return RgbAlpha(*v, 1.f);
        return mDefault.evalColor(c, cache);
    }
    MonoAlpha evalMono(IShadeContext const& c, MapCache* cache) const override {
        if (auto const v = lookup(c)) return MonoAlpha(v->mean(), 1.f);
        return mDefault.evalMono(c, cache);
    }
    Dir evalBump(IShadeContext const& c, MapCache* cache) const override {
        return lookup(c) ? Dir() : mDefault.evalBump(c, cache);
    }

private:
    Optional<Rgb> lookup(IShadeContext const& c) const {
        auto const v = c.getUserProperty(mName);
        return v ? UserPropertyMap::toColor(*v) : std::nullopt;
    }
    String mName;
    ColorOrMap::Evaluator mDefault;
};
} // namespace

IMap::OptimizedResult UserPropertyMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    auto fallback = MapsDetail::colorOrMapEvaluator(getData(), "default");
    String name = get<String>("propertyName");
    if (name.empty()) return MapsDetail::passThrough(fallback);
    OptimizedResult r;
    r.evaluator = makeSharedPtr<UserPropertyEvaluator>(std::move(name), std::move(fallback));
    return r;
}

FERRIM_REGISTER_ENTITY(UserPropertyMap);

// ----------------------------------------------------------- ColorMathMap

SharedPtr<TypeDefinition const> const& ColorMathMap::Data::operationType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.ColorMathMap.Operation",
        {{0, "Add"}, {1, "Subtract"}, {2, "Multiply"}, {3, "Divide"}, {4, "Minimum"}, {5, "Maximum"}, {6, "Power"},
         {7, "Average"}, {8, "Absolute"}, {9, "Floor"}, {10, "Fraction"}, {11, "Modulo"}, {12, "Clamp"}, {13, "Compare"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& ColorMathMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("a", Rgb(0.5f, 0.5f, 0.5f), "A", "The first operand");
        b.addColorOrMap("b", Rgb(0.5f, 0.5f, 0.5f), "B", "The second operand (unused by the one-operand operations)");
        b.addEnum("operation", operationType(), int(Operation::Add), "Operation", "The operation, channel by channel");
        b.addFloat("epsilon", 1e-3f, "Epsilon", "Largest difference that Compare counts as equal")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f));
        return b.build("Zatho.ColorMathMap");
    }();
    return d;
}

ColorMathMap::ColorMathMap() : IMap(Data::definition()) {}
SharedPtr<Entity> ColorMathMap::createNewInstance() const { return makeSharedPtr<ColorMathMap>(); }

float ColorMathMap::apply(Operation op, float a, float b, float epsilon) {
    switch (op) {
    case Operation::Add: return a + b;
    case Operation::Subtract: return a - b;
    case Operation::Multiply: return a * b;
    case Operation::Divide: return b == 0.f ? 0.f : a / b;
    case Operation::Minimum: return std::fmin(a, b);
    case Operation::Maximum: return std::fmax(a, b);
    case Operation::Power:
        if ((a < 0.f && b != std::floor(b)) || (a == 0.f && b < 0.f)) return 0.f;
        return std::pow(a, b);
    case Operation::Average: return 0.5f * (a + b);
    case Operation::Absolute: return std::fabs(a);
    case Operation::Floor: return std::floor(a);
    case Operation::Fraction: return a - std::floor(a);
    case Operation::Modulo: return b == 0.f ? 0.f : std::fmod(a, b);
    case Operation::Clamp: return a > 0.f ? (a < 1.f ? a : 1.f) : (a == a ? 0.f : a);
    case Operation::Compare: return std::fabs(a - b) <= epsilon ? 1.f : 0.f;
    }
    Detail::throwStopException("maps/MiscMaps", __LINE__);
}

std::pair<float, float> ColorMathMap::slopes(Operation op, float a, float b) {
    switch (op) {
    case Operation::Add: return {1.f, 1.f};
    case Operation::Subtract: return {1.f, -1.f};
    case Operation::Multiply: return {b, a};
    case Operation::Divide: return b == 0.f ? std::pair{0.f, 0.f} : std::pair{1.f / b, -a / (b * b)};
    case Operation::Minimum: return a <= b ? std::pair{1.f, 0.f} : std::pair{0.f, 1.f};
    case Operation::Maximum: return a >= b ? std::pair{1.f, 0.f} : std::pair{0.f, 1.f};
    case Operation::Power:
        if (!(a > 0.f)) return {0.f, 0.f};
        return {b * std::pow(a, b - 1.f), std::pow(a, b) * std::log(a)};
    case Operation::Average: return {0.5f, 0.5f};
    case Operation::Absolute: return {a < 0.f ? -1.f : 1.f, 0.f};
    case Operation::Floor: return {0.f, 0.f};
    case Operation::Fraction: return {1.f, 0.f};
    case Operation::Modulo: return b == 0.f ? std::pair{0.f, 0.f} : std::pair{1.f, -std::trunc(a / b)};
    case Operation::Clamp: return {a > 0.f && a < 1.f ? 1.f : 0.f, 0.f};
    case Operation::Compare: return {0.f, 0.f};
    }
    Detail::throwStopException("maps/MiscMaps", __LINE__);
}

namespace {
class ColorMathEvaluator final : public IMapEvaluator {
public:
    using Operation = ColorMathMap::Operation;
    ColorMathEvaluator(ColorOrMap::Evaluator a, ColorOrMap::Evaluator b, Operation op, float epsilon)
        : mA(std::move(a)), mB(std::move(b)), mOp(op), mEpsilon(epsilon),
          mUnary(op == Operation::Absolute || op == Operation::Floor || op == Operation::Fraction || op == Operation::Clamp) {}
    RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override {
        RgbAlpha const a = mA.evalColor(c, cache);
        RgbAlpha const b = mUnary ? a : mB.evalColor(c, cache);
        return {ColorMathMap::apply(mOp, a.r, b.r, mEpsilon), ColorMathMap::apply(mOp, a.g, b.g, mEpsilon),
                ColorMathMap::apply(mOp, a.b, b.b, mEpsilon), a.alpha};
    }
    MonoAlpha evalMono(IShadeContext const& c, MapCache* cache) const override {
        RgbAlpha const v = evalColor(c, cache);
        return {v.rgb().mean(), v.alpha};
    }
    Dir evalBump(IShadeContext const& c, MapCache* cache) const override {
        float const a = mA.evalMono(c, cache).value;
        float const b = mUnary ? a : mB.evalMono(c, cache).value;
        auto const [da, db] = ColorMathMap::slopes(mOp, a, b);
        Dir r;
        if (da != 0.f) r += mA.evalBump(c, cache) * da;
        if (db != 0.f && !mUnary) r += mB.evalBump(c, cache) * db;
        return r;
    }

private:
    ColorOrMap::Evaluator mA, mB;
    Operation mOp;
    float mEpsilon;
    bool mUnary;
};
} // namespace

IMap::OptimizedResult ColorMathMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    Operation const op = get<Operation>("operation");
    float const epsilon = get<float>("epsilon");
    auto a = MapsDetail::colorOrMapEvaluator(getData(), "a");
    auto b = MapsDetail::colorOrMapEvaluator(getData(), "b");
    bool const unary = op == Operation::Absolute || op == Operation::Floor || op == Operation::Fraction || op == Operation::Clamp;
    bool const constant = a.isConstant() && (unary || b.isConstant());
    auto evaluator = makeSharedPtr<ColorMathEvaluator>(std::move(a), std::move(b), op, epsilon);
    if (constant) return MapsDetail::foldToConstant(*evaluator);
    OptimizedResult r;
    r.evaluator = std::move(evaluator);
    return r;
}

FERRIM_REGISTER_ENTITY(ColorMathMap);

} // namespace Quelin
