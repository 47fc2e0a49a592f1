#include "Ferrim/MaterialMapSlot.h"

#include <algorithm>
#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "QuelinLib/Json.h"
#include "QuelinLib/MessageText.h"

namespace Quelin {

// -------------------------------------------------------------- ColorOrMap

SharedPtr<DataObjectDefinition const> const& ColorOrMap::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addColor("color", Rgb(0, 0, 0), "Color", "The value used when no map applies");
        b.addMap("map", "Map", "A map that replaces the colour while it is switched on");
        b.addBool("mapOn", true, "Map on", "Whether the map applies");
        return b.build("Zatho.ColorOrMap");
    }();
    return sDefinition;
}

namespace {
Ferrim::TypeRegistrar const sColorOrMapRegistrar([] { return ColorOrMap::definition(); });
} // namespace

ColorOrMap ColorOrMap::fromData(GenericDataObject const& data) {
    ColorOrMap v;
    v.color = data.get<Rgb>("color");
    v.map = data.get<EntityHolder<IMap>>("map");
    v.mapOn = data.get<bool>("mapOn");
    return v;
}

GenericDataObject ColorOrMap::toData() const {
    GenericDataObject d(definition());
    d.set("color", color);
    d.set("map", map);
    d.set("mapOn", mapOn);
    return d;
}

ColorOrMap::Evaluator::Evaluator(ColorOrMap const& value)
    : mColor(value.color, 1.f), mMono(value.color.mean(), 1.f) {
    if (!value.map || !value.mapOn) return;
    IMap::OptimizedResult r = value.map->getEvaluator();
    if (r.hasConstant) {
        mColor = r.constantColor;
        mMono = r.constantMono;
    } else {
        mEvaluator = std::move(r.evaluator);
    }
}

void defineSerialization(SerializationVisitor& visitor, ColorOrMap& value) {
    visitor.visit("color", value.color);
    visitor.visit("map", value.map);
    visitor.visit("mapOn", value.mapOn);
}

// ---------------------------------------------------------- colour spaces

// Derived from the published primaries and whites (ITU-R BT.709 and BT.2020,
// SMPTE ST 2065-1 for AP0, the ACEScg AP1 primaries, SMPTE EG 432-1
// for Display P3) with a Bradford adaptation from D65 to the ACES white.
StaticArray<ColorSpaceTransform, 5> const ColorSpaceTransform::COLOR_SPACES = {{
    {ColorSpace::LinearSrgb, "Linear sRGB / Rec.709", Matrix33(), Matrix33()},
    {ColorSpace::AcesCg, "ACEScg (AP1)",
     Matrix33(0.613097402f, 0.339523146f, 0.0473794514f,
              0.0701937225f, 0.916353879f, 0.0134523985f,
              0.0206155929f, 0.109569773f, 0.869814634f),
     Matrix33(1.70505099f, -0.621792121f, -0.083258872f,
              -0.130256418f, 1.14080474f, -0.0105483191f,
              -0.0240033568f, -0.128968976f, 1.15297233f)},
    {ColorSpace::Aces2065, "ACES2065-1 (AP0)",
     Matrix33(0.439632982f, 0.382988698f, 0.17737832f,
              0.089776443f, 0.813439429f, 0.0967841283f,
              0.0175411704f, 0.111546553f, 0.870912276f),
     Matrix33(2.52168619f, -1.13413099f, -0.387555199f,
              -0.276479914f, 1.37271909f, -0.0962391734f,
              -0.015378065f, -0.152975336f, 1.1683534f)},
    {ColorSpace::Rec2020, "Linear Rec.2020",
     Matrix33(0.627403896f, 0.329283038f, 0.0433130657f,
              0.0690972894f, 0.919540395f, 0.0113623156f,
              0.0163914389f, 0.0880133079f, 0.895595253f),
     Matrix33(1.660491f, -0.587641139f, -0.0728498633f,
              -0.124550475f, 1.1328999f, -0.0083494226f,
              -0.0181507634f, -0.100578898f, 1.11872966f)},
    {ColorSpace::DisplayP3, "Linear Display P3",
     Matrix33(0.822461969f, 0.177538031f, 0.f,
              0.0331941989f, 0.966805801f, 0.f,
              0.0170826307f, 0.0723974407f, 0.910519929f),
     Matrix33(1.22494018f, -0.224940176f, 0.f,
              -0.0420569547f, 1.04205695f, 0.f,
              -0.0196375546f, -0.0786360456f, 1.0982736f)},
}};

ColorSpaceTransform const* ColorSpaceTransform::sCurrent = &ColorSpaceTransform::COLOR_SPACES[0];

// --------------------------------------------------------- MaterialMapSlot

MaterialMapSlot::MaterialMapSlot(Variant<Rgb, float> const& color_, EntityHolder<IMap> const& map_, bool mapOn_,
                                 Rgb const& mapTint_, float intensityMultiplier_, Interpolation interpolationMode_,
                                 float alphaBlendMultiplier_)
    : mapTint(mapTint_), color(color_), map(map_), mapOn(mapOn_), intensityMultiplier(intensityMultiplier_),
      interpolationMode(interpolationMode_), alphaBlendMultiplier(alphaBlendMultiplier_) {}

Rgb MaterialMapSlot::getBaseColor() const {
    if (auto const* c = std::get_if<Rgb>(&color)) return *c;
    return Rgb(std::get<float>(color));
}

SharedPtr<TypeDefinition const> const& MaterialMapSlot::interpolationType() {
    static SharedPtr<TypeDefinition const> const sType = TypeDefinition::makeEnum(
        "Zatho.MaterialMapSlot.Interpolation", {{0, "Override"}, {1, "Mix"}, {2, "Add"}, {3, "Subtract"}});
    return sType;
}

SharedPtr<DataObjectDefinition const> const& MaterialMapSlot::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addColor("color", Rgb(0, 0, 0), "Color", "The base value; a number fills all three channels");
        b.addBool("colorIsNumber", false, "Is number", "Whether the base value is a number rather than a colour");
        b.addMap("map", "Map", "A map blended into the base value");
        b.addBool("mapOn", true, "Map on", "Whether the map applies");
        b.addColor("mapTint", Rgb(1, 1, 1), "Map tint", "Multiplies the map's colour");
        b.addFloat("intensityMultiplier", 1.f, "Intensity", "Multiplies the base value")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f));
        b.addEnum("interpolationMode", interpolationType(), int(Interpolation::Override), "Blend mode",
                  "How the map combines with the base: override, mix, add or subtract (map minus base)");
        b.addFloat("alphaBlendMultiplier", 1.f, "Blend amount", "Scales the map's alpha in the blend")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f));
        return b.build("Zatho.MaterialMapSlot");
    }();
    return sDefinition;
}

namespace {
Ferrim::TypeRegistrar const sMaterialMapSlotRegistrar([] { return MaterialMapSlot::definition(); });
} // namespace

MaterialMapSlot MaterialMapSlot::fromData(GenericDataObject const& data) {
    MaterialMapSlot s;
    Rgb const c = data.get<Rgb>("color");
    if (data.get<bool>("colorIsNumber"))
        s.color = c.r;
    else
        s.color = c;
    s.map = data.get<EntityHolder<IMap>>("map");
    s.mapOn = data.get<bool>("mapOn");
    s.mapTint = data.get<Rgb>("mapTint");
    s.intensityMultiplier = data.get<float>("intensityMultiplier");
    s.interpolationMode = data.get<Interpolation>("interpolationMode");
    s.alphaBlendMultiplier = data.get<float>("alphaBlendMultiplier");
    return s;
}

GenericDataObject MaterialMapSlot::toData() const {
    GenericDataObject d(definition());
    d.set("color", getBaseColor());
    d.set("colorIsNumber", std::holds_alternative<float>(color));
    d.set("map", map);
    d.set("mapOn", mapOn);
    d.set("mapTint", mapTint);
    d.set("intensityMultiplier", intensityMultiplier);
    d.set("interpolationMode", interpolationMode);
    d.set("alphaBlendMultiplier", alphaBlendMultiplier);
    return d;
}

bool MaterialMapSlot::operator==(MaterialMapSlot const& o) const {
    // NaN-tolerant on purpose: only an ordered difference counts.
    auto const differ = [](float a, float b) { return a < b || a > b; };
    Rgb const a = getBaseColor(), b = o.getBaseColor();
    return a.r == b.r && a.g == b.g && a.b == b.b && map == o.map && mapOn == o.mapOn && mapTint.r == o.mapTint.r &&
           mapTint.g == o.mapTint.g && mapTint.b == o.mapTint.b &&
           !differ(intensityMultiplier, o.intensityMultiplier) && interpolationMode == o.interpolationMode &&
           !differ(alphaBlendMultiplier, o.alphaBlendMultiplier);
}

bool isValid(MaterialMapSlot const& slot) {
    auto const finite = [](Rgb const& c) { return std::isfinite(c.r) && std::isfinite(c.g) && std::isfinite(c.b); };
    if (!finite(slot.getBaseColor()) || !finite(slot.mapTint)) return false;
    if (!std::isfinite(slot.intensityMultiplier) || slot.intensityMultiplier < 0.f) return false;
    if (!std::isfinite(slot.alphaBlendMultiplier) || slot.alphaBlendMultiplier < 0.f) return false;
    if (slot.interpolationMode == MaterialMapSlot::Interpolation::Mix && slot.alphaBlendMultiplier > 1.f) return false;
    return true;
}

void defineSerialization(SerializationVisitor& visitor, MaterialMapSlot& slot) {
    visitor.visit("color", slot.color);
    visitor.visit("map", slot.map);
    visitor.visit("mapOn", slot.mapOn);
    visitor.visit("mapTint", slot.mapTint);
    visitor.visit("intensityMultiplier", slot.intensityMultiplier);
    int mode = int(slot.interpolationMode);
    visitor.visitEnum("interpolationMode", mode, *MaterialMapSlot::interpolationType());
    slot.interpolationMode = MaterialMapSlot::Interpolation(mode);
    visitor.visit("alphaBlendMultiplier", slot.alphaBlendMultiplier);
}

// ------------------------------------------------------ slot evaluation

namespace {
using Interpolation = MaterialMapSlot::Interpolation;

void checkMode(Interpolation mode) {
    if (int(mode) < 0 || int(mode) > 3) Detail::throwStopException("MaterialMapSlot", 215);
}

// Base b, map value m (tint applied), map alpha a, blend amount k.
template <typename T> T blend(Interpolation mode, T const& b, T const& m, float a, float k) {
    switch (mode) {
    case Interpolation::Override: return m;
    case Interpolation::Mix: return (1.f - a * k) * b + (a * k) * m;
    case Interpolation::Add: return a * m * k + b;
    case Interpolation::Subtract: return a * m * k - b;  // map term minus base, deliberately
    }
    Detail::throwStopException("MaterialMapSlot", 215);
}

Rgb clampBelow(Rgb const& c) { return Rgb(std::max(c.r, 0.f), std::max(c.g, 0.f), std::max(c.b, 0.f)); }
Rgb clampUnit(Rgb const& c) { return Rgb(clamp(c.r, 0.f, 1.f), clamp(c.g, 0.f, 1.f), clamp(c.b, 0.f, 1.f)); }
} // namespace

MaterialMapSlot::Evaluator::Evaluator(MaterialMapSlot const& slot)
    : mTint(slot.mapTint), mTintMono(slot.mapTint.mean()), mBlend(slot.alphaBlendMultiplier),
      mMode(slot.interpolationMode) {
    checkMode(mMode);
    ColorSpaceTransform const& space = *ColorSpaceTransform::sCurrent;
    mToWorking = space.fromRec709;
    mToClamped = space.fromRec709;
    Rgb const c = slot.getBaseColor() * slot.intensityMultiplier;
    mBase = c;
    mBaseWorking = clampBelow(mToWorking * c);
    mBaseClamped = clampUnit(mToClamped * c);
    mBaseMono = c.mean();
    mBaseMonoClamped = clamp(mBaseMono, 0.f, 1.f);
    if (!slot.map || !slot.mapOn) return;
    IMap::OptimizedResult r = slot.map->getEvaluator();
    if (!r.hasConstant) {
        mMapEvaluator = std::move(r.evaluator);
        return;
    }
    // A constant map is blended in now, so evaluation is a plain read.
    Rgb const m = r.constantColor.rgb() * mTint;
    float const a = r.constantColor.alpha;
    mBase = blend(mMode, mBase, m, a, mBlend);
    mBaseWorking = clampBelow(blend(mMode, mBaseWorking, clampBelow(mToWorking * m), a, mBlend));
    mBaseClamped = clampUnit(blend(mMode, mBaseClamped, clampUnit(mToClamped * m), a, mBlend));
    float const mono = mTintMono * r.constantMono.value;
    float const monoAlpha = r.constantMono.alpha;
    mBaseMono = blend(mMode, mBaseMono, mono, monoAlpha, mBlend);
    mBaseMonoClamped = clamp(blend(mMode, mBaseMonoClamped, clamp(mono, 0.f, 1.f), monoAlpha, mBlend), 0.f, 1.f);
}

Rgb MaterialMapSlot::Evaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    if (!mMapEvaluator) return mBase;
    RgbAlpha const v = mMapEvaluator->evalColor(context, cache);
    return blend(mMode, mBase, v.rgb() * mTint, v.alpha, mBlend);
}

Rgb MaterialMapSlot::Evaluator::evalWorkingColor(IShadeContext const& context, MapCache* cache) const {
    if (!mMapEvaluator) return mBaseWorking;
    RgbAlpha const v = mMapEvaluator->evalColor(context, cache);
    Rgb const m = clampBelow(mToWorking * (v.rgb() * mTint));
    return clampBelow(blend(mMode, mBaseWorking, m, v.alpha, mBlend));
}

Rgb MaterialMapSlot::Evaluator::evalClampedColor(IShadeContext const& context, MapCache* cache) const {
    if (!mMapEvaluator) return mBaseClamped;
    RgbAlpha const v = mMapEvaluator->evalColor(context, cache);
    Rgb const m = clampUnit(mToClamped * (v.rgb() * mTint));
    return clampUnit(blend(mMode, mBaseClamped, m, v.alpha, mBlend));
}

float MaterialMapSlot::Evaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    if (!mMapEvaluator) return mBaseMono;
    MonoAlpha const v = mMapEvaluator->evalMono(context, cache);
    return blend(mMode, mBaseMono, mTintMono * v.value, v.alpha, mBlend);
}

float MaterialMapSlot::Evaluator::evalClampedMono(IShadeContext const& context, MapCache* cache) const {
    if (!mMapEvaluator) return mBaseMonoClamped;
    MonoAlpha const v = mMapEvaluator->evalMono(context, cache);
    return clamp(blend(mMode, mBaseMonoClamped, clamp(mTintMono * v.value, 0.f, 1.f), v.alpha, mBlend), 0.f, 1.f);
}

// ----------------------------------------------------------------- JSON

namespace {
nlohmann::json rgbToJson(Rgb const& c) { return nlohmann::json::array({floatToJson(c.r), floatToJson(c.g), floatToJson(c.b)}); }

String inQuotes(StringView text) {
    String r;
    r.reserve(text.size() + 2);
    r.append(1, '"').append(text).append(1, '"');
    return r;
}

Optional<Rgb> rgbFromJson(nlohmann::json const& j) {
    if (!j.is_array() || j.size() != 3) return std::nullopt;
    Optional<float> const r = jsonToFloat(j[0]), g = jsonToFloat(j[1]), b = jsonToFloat(j[2]);
    if (!r || !g || !b) return std::nullopt;
    return Rgb(*r, *g, *b);
}
} // namespace

void JsonWriteVisitor::visit(StringView key, Rgb& value) { mTarget[String(key)] = rgbToJson(value); }
void JsonWriteVisitor::visit(StringView key, float& value) { mTarget[String(key)] = floatToJson(value); }
void JsonWriteVisitor::visit(StringView key, bool& value) { mTarget[String(key)] = value; }
void JsonWriteVisitor::visit(StringView key, int& value) { mTarget[String(key)] = value; }
void JsonWriteVisitor::visit(StringView key, Variant<Rgb, float>& value) {
    if (auto const* c = std::get_if<Rgb>(&value))
        mTarget[String(key)] = rgbToJson(*c);
    else
        mTarget[String(key)] = floatToJson(std::get<float>(value));
}
void JsonWriteVisitor::visit(StringView key, EntityHolder<IMap>& value) {
    mTarget[String(key)] = value ? entityToJson(*value) : nlohmann::json(nullptr);
}
void JsonWriteVisitor::visitEnum(StringView key, int& value, TypeDefinition const& type) {
    if (Optional<StringView> const label = type.findEnumLabel(value))
        mTarget[String(key)] = String(*label);
    else
        mTarget[String(key)] = value;
}

nlohmann::json const* JsonReadVisitor::find(StringView key) {
    mVisited.emplace_back(key);
    if (mError || !mSource.is_object()) return nullptr;
    auto const it = mSource.find(String(key));
    return it == mSource.end() ? nullptr : &*it;
}

void JsonReadVisitor::fail(StringView key, String const& problem) {
    if (mError) return;
    String text;
    text.reserve(key.size() + problem.size() + 4);
    text.append(1, '"').append(key).append("\": ").append(problem);
    mError = std::move(text);
}

void JsonReadVisitor::visit(StringView key, Rgb& value) {
    if (auto const* j = find(key)) {
        if (auto const c = rgbFromJson(*j))
            value = *c;
        else
            fail(key, "expected an array of three numbers");
    }
}
void JsonReadVisitor::visit(StringView key, float& value) {
    if (auto const* j = find(key)) {
        if (auto const v = jsonToFloat(*j))
            value = *v;
        else
            fail(key, "expected a number within the range of a float, not " + describeJson(*j));
    }
}
void JsonReadVisitor::visit(StringView key, bool& value) {
    if (auto const* j = find(key)) {
        if (j->is_boolean())
            value = j->get<bool>();
        else
            fail(key, "expected true or false");
    }
}
void JsonReadVisitor::visit(StringView key, int& value) {
    if (auto const* j = find(key)) {
        if (auto const v = jsonToInt(*j))
            value = *v;
        else
            fail(key, "expected a 32-bit integer, not " + describeJson(*j));
    }
}
void JsonReadVisitor::visit(StringView key, Variant<Rgb, float>& value) {
    if (auto const* j = find(key)) {
        if (auto const v = j->is_array() ? std::nullopt : jsonToFloat(*j))
            value = *v;
        else if (auto const c = rgbFromJson(*j))
            value = *c;
        else
            fail(key, "expected a number or an array of three numbers within the range of a float");
    }
}
void JsonReadVisitor::visit(StringView key, EntityHolder<IMap>& value) {
    if (auto const* j = find(key)) {
        if (j->is_null()) {
            value = EntityHolder<IMap>();
        } else if (!j->is_object()) {
            fail(key, "expected a map object or null");
        } else if (auto m = entityFromJsonAs<IMap>(*j)) {
            value = *m;
        } else {
            fail(key, m.error());
        }
    }
}
void JsonReadVisitor::visitEnum(StringView key, int& value, TypeDefinition const& type) {
    if (auto const* j = find(key)) {
        if (j->is_string()) {
            if (Optional<int> const v = type.findEnumValue(j->get<String>()))
                value = *v;
            else
                fail(key, describeJson(*j).append(" is not a value of ").append(inQuotes(type.getName())));
        } else if (auto const v = jsonToInt(*j); v && type.findEnumLabel(*v)) {
            value = *v;
        } else {
            fail(key, String("expected one of the labels of ").append(inQuotes(type.getName())));
        }
    }
}

Expected<void> JsonReadVisitor::finish() const {
    if (mError) return makeError(*mError);
    if (!mSource.is_object()) return makeError("expected a JSON object");
    for (auto const& [k, v] : mSource.items())
        if (std::find(mVisited.begin(), mVisited.end(), k) == mVisited.end())
            return makeError(inQuotes(printableText(k, 40)) + ": unknown key");
    return {};
}

namespace {
template <typename T> nlohmann::json writeJson(T value) {
    nlohmann::json j = nlohmann::json::object();
    JsonWriteVisitor visitor(j);
    defineSerialization(visitor, value);
    return j;
}

template <typename T> Expected<void> readJson(nlohmann::json const& json, T& target) {
    T value = target;  // the target changes only when everything was read
    JsonReadVisitor visitor(json);
    defineSerialization(visitor, value);
    if (auto r = visitor.finish(); !r) return r;
    target = std::move(value);
    return {};
}
} // namespace

nlohmann::json toJson(ColorOrMap const& value) { return writeJson(value); }
Expected<void> fromJson(nlohmann::json const& json, ColorOrMap& value) { return readJson(json, value); }
nlohmann::json toJson(MaterialMapSlot const& slot) { return writeJson(slot); }
Expected<void> fromJson(nlohmann::json const& json, MaterialMapSlot& slot) { return readJson(json, slot); }

// ------------------------------------------------------ IncludeExcludeSet

IncludeExcludeSet IncludeExcludeSet::fromExcludedNodes(ExcludedNodes const& nodes) {
    IncludeExcludeSet s;
    s.mIsInclude = nodes.isInclude;
    for (auto const& n : nodes.nodes)
        if (n) s.mNodes.push_back(n);
    return s;
}

ExcludedNodes IncludeExcludeSet::toExcludedNodes() const { return ExcludedNodes{mNodes, mIsInclude}; }

void IncludeExcludeSet::removeInvalidNodes(IEntityHandleScope const& scope) {
    std::erase_if(mNodes, [&](EntityHolder<Entity> const& n) { return !n || !scope.contains(*n); });
}

bool IncludeExcludeSet::applies(Entity const& entity) const {
    bool const listed =
        std::any_of(mNodes.begin(), mNodes.end(), [&](EntityHolder<Entity> const& n) { return n.get() == &entity; });
    return mIsInclude == listed;
}

} // namespace Quelin
