#include "Ferrim/maps/ColorCorrectMap.h"

#include <algorithm>
#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

using Source = ColorCorrection::Source;

float luminance(float r, float g, float b) {
    return ColorCorrection::LUMA_R * r + ColorCorrection::LUMA_G * g + ColorCorrection::LUMA_B * b;
}

float pick(Source s, RgbAlpha const& c) {
    switch (s) {
    case Source::RED: return c.r;
    case Source::GREEN: return c.g;
    case Source::BLUE: return c.b;
    case Source::ALPHA: return c.alpha;
    case Source::RED_INVERSE: return 1.f - c.r;
    case Source::GREEN_INVERSE: return 1.f - c.g;
    case Source::BLUE_INVERSE: return 1.f - c.b;
    case Source::ALPHA_INVERSE: return 1.f - c.alpha;
    case Source::MONO: return luminance(c.r, c.g, c.b);
    case Source::ONE: return 1.f;
    case Source::ZERO: return 0.f;
    }
    return 0.f;
}

/// Rotation by `degrees` about the grey axis (1, 1, 1) / sqrt 3 (Rodrigues'
/// formula): it keeps the channel mean and moves red toward green for positive angles.
Matrix33 hueRotation(float degrees) {
    double const a = double(degrees) * 3.14159265358979323846 / 180.0;
    double const c = std::cos(a), s = std::sin(a) / std::sqrt(3.0), k = (1.0 - c) / 3.0;
    auto f = [](double v) { return float(v); };
    return {f(c + k), f(k - s), f(k + s), f(k + s), f(c + k), f(k - s), f(k - s), f(k + s), f(c + k)};
}

/// A finite value, or the neutral one.
float finiteOr(float v, float neutral) { return std::isfinite(v) ? v : neutral; }
Rgb finiteOr(Rgb const& v, float neutral) { return {finiteOr(v.r, neutral), finiteOr(v.g, neutral), finiteOr(v.b, neutral)}; }

/// sign(x) |x|^e: the curve mirrored through the origin, so negatives keep their sign.
float signedPow(float x, float e) { return std::copysign(std::pow(std::fabs(x), e), x); }

char const* const REWIRE_NAMES[4] = {"rewireRed", "rewireGreen", "rewireBlue", "rewireAlpha"};
char const* const CURVE_NAMES[4] = {"curveMaster", "curveRed", "curveGreen", "curveBlue"};

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addColorOrMap("color", Rgb(0.5f, 0.5f, 0.5f), "Color", "Colour (or map) to correct");
    char const* const ui[4] = {"Red from", "Green from", "Blue from", "Alpha from"};
    for (int i = 0; i < 4; ++i)
        b.addEnum(REWIRE_NAMES[i], ColorCorrectMap::Data::sourceType(), i, ui[i],
                  "Channel of the input that feeds this output channel (INVERSE: one minus it; MONO: luminance)");
    b.addBool("invert", false, "Invert", "Replace the colour by one minus it (alpha unchanged)");
    b.addFloat("exposure", 0.f, "Exposure", "Stops of exposure: the colour is multiplied by 2^exposure")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-32.f, 32.f));
    b.addFloat("hueShift", 0.f, "Hue shift", "Degrees of rotation of the hue; 120 turns red into green")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-360.f, 360.f));
    b.addFloat("saturation", 1.f, "Saturation", "Colourfulness factor: 0 gives grey, 1 leaves the colour, 2 doubles it")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 10.f));
    b.addFloat("vibrance", 0.f, "Vibrance", "Extra saturation that spares colours that are saturated already")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-1.f, 10.f));
    b.addColor("lift", Rgb(0, 0, 0), "Lift", "What black becomes (per channel)");
    b.addColor("gain", Rgb(1, 1, 1), "Gain", "What white becomes (per channel)");
    b.addFloat("brightness", 0.f, "Brightness", "Value added to every channel (with the contrast around 0.5)")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-100.f, 100.f));
    b.addFloat("contrast", 0.f, "Contrast", "Slope change around 0.5: 0 leaves the colour, -1 gives flat grey")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-1.f, 100.f));
    b.addFloat("gamma", 1.f, "Gamma", "Output is the input to the power 1 / gamma; above 1 brightens the middle tones")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(ColorCorrection::MIN_GAMMA, 100.f));
    ListPropertyValue const identity = makeCurvePoints({{0.f, 0.f}, {1.f, 1.f}});
    char const* const curveUi[4] = {"Curve", "Red curve", "Green curve", "Blue curve"};
    for (int i = 0; i < 4; ++i)
        b.addList(CURVE_NAMES[i], curvePointDefinition(), curveUi[i],
                  i == 0 ? "Control points of the curve of all three channels, applied after gamma"
                         : "Control points of this channel's own curve, applied after the master curve")
            .setDefault(identity);
    b.addBool("preserveHue", true, "Preserve hue",
              "The master curve reshapes the brightest and darkest channel and keeps the hue");
    return b.build("Zatho.ColorCorrectMap");
}

} // namespace

ColorCorrection::ColorCorrection(Parameters const& p)
    : mRewire(p.rewire), mInvert(p.invert), mExposureScale(std::exp2(finiteOr(p.exposure, 0.f))),
      mHue(hueRotation(finiteOr(p.hueShift, 0.f))), mSaturation(finiteOr(p.saturation, 1.f)),
      mVibrance(finiteOr(p.vibrance, 0.f)), mLift(finiteOr(p.lift, 0.f)), mPreserveHue(p.preserveHue) {
    mRewireIdentity = p.rewire == Parameters().rewire;
    mHueIdentity = finiteOr(p.hueShift, 0.f) == 0.f;
    Rgb const gain = finiteOr(p.gain, 1.f);
    mGainMinusLift = gain - mLift;
    // Brightness and contrast as one line: pivot 0.5, so mid grey keeps its value at zero brightness.
    float const contrast = finiteOr(p.contrast, 0.f);
    mContrastScale = 1.f + contrast;
    mContrastOffset = finiteOr(p.brightness, 0.f) - 0.5f * contrast;
    mInverseGamma = 1.f / std::max(finiteOr(p.gamma, 1.f), MIN_GAMMA);
    mMaster = MonotoneCurve::fromPoints(p.masterCurve);
    for (int i = 0; i < 3; ++i) mChannel[std::size_t(i)] = MonotoneCurve::fromPoints(p.channelCurves[std::size_t(i)]);
}

RgbAlpha ColorCorrection::apply(RgbAlpha const& in) const {
    RgbAlpha c = in;
    if (!mRewireIdentity) c = {pick(mRewire[0], in), pick(mRewire[1], in), pick(mRewire[2], in), pick(mRewire[3], in)};
    if (mInvert) c.r = 1.f - c.r, c.g = 1.f - c.g, c.b = 1.f - c.b;
    Rgb rgb = c.rgb() * mExposureScale;
    if (!mHueIdentity) rgb = mHue * rgb;

    if (mSaturation != 1.f || mVibrance != 0.f) {
        float const grey = luminance(rgb.r, rgb.g, rgb.b);
        float factor = mSaturation;
        if (mVibrance != 0.f) {
            // Saturation of the colour in [0, 1] as (max - min) / |max|: vibrance acts on the unsaturated rest.
            float const hi = std::max({rgb.r, rgb.g, rgb.b}), lo = std::min({rgb.r, rgb.g, rgb.b});
            float const sat = std::clamp((hi - lo) / std::max(std::fabs(hi), 1e-6f), 0.f, 1.f);
            factor *= 1.f + mVibrance * (1.f - sat);
        }
        rgb = Rgb(grey) + (rgb - Rgb(grey)) * factor;
    }
    rgb = mLift + mGainMinusLift * rgb;
    rgb = rgb * mContrastScale + Rgb(mContrastOffset);
    if (mInverseGamma != 1.f)
        rgb = {signedPow(rgb.r, mInverseGamma), signedPow(rgb.g, mInverseGamma), signedPow(rgb.b, mInverseGamma)};

    if (!mMaster.isIdentity()) {
        if (mPreserveHue) {
            // The curve moves the largest and the smallest channel; the middle one keeps its
            // relative place between them, which is what fixes the hue.
            int hi = 0, lo = 0;
            for (int i = 1; i < 3; ++i) {
                if (rgb[i] > rgb[hi]) hi = i;
                if (rgb[i] < rgb[lo]) lo = i;
            }
            if (hi == lo) {
                float const v = mMaster.evaluate(rgb.r);
                rgb = Rgb(v, mMaster.evaluate(rgb.g), mMaster.evaluate(rgb.b));
            } else {
                int const mid = 3 - hi - lo;
                float const h = mMaster.evaluate(rgb[hi]), l = mMaster.evaluate(rgb[lo]);
                float const t = (rgb[mid] - rgb[lo]) / (rgb[hi] - rgb[lo]);
                Rgb out;
                out[hi] = h, out[lo] = l, out[mid] = l + (h - l) * t;
                rgb = out;
            }
        } else {
            rgb = {mMaster.evaluate(rgb.r), mMaster.evaluate(rgb.g), mMaster.evaluate(rgb.b)};
        }
    }
    for (int i = 0; i < 3; ++i)
        if (!mChannel[std::size_t(i)].isIdentity()) rgb[i] = mChannel[std::size_t(i)].evaluate(rgb[i]);
    return {rgb, c.alpha};
}

SharedPtr<TypeDefinition const> const& ColorCorrectMap::Data::sourceType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.ColorCorrectMap.Source", {{0, "RED"}, {1, "GREEN"}, {2, "BLUE"}, {3, "ALPHA"}, {4, "RED_INVERSE"},
                                         {5, "GREEN_INVERSE"}, {6, "BLUE_INVERSE"}, {7, "ALPHA_INVERSE"}, {8, "MONO"},
                                         {9, "ONE"}, {10, "ZERO"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& ColorCorrectMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

ColorCorrectMap::ColorCorrectMap() : IMap(Data::definition()) {}

SharedPtr<Entity> ColorCorrectMap::createNewInstance() const { return makeSharedPtr<ColorCorrectMap>(); }

ColorCorrection::Parameters ColorCorrectMap::parameters() const {
    GenericDataObject const& d = getData();
    ColorCorrection::Parameters p;
    for (int i = 0; i < 4; ++i) p.rewire[std::size_t(i)] = d.get<ColorCorrection::Source>(REWIRE_NAMES[i]);
    p.invert = d.get<bool>("invert");
    p.exposure = d.get<float>("exposure");
    p.hueShift = d.get<float>("hueShift");
    p.saturation = d.get<float>("saturation");
    p.vibrance = d.get<float>("vibrance");
    p.lift = d.get<Rgb>("lift");
    p.gain = d.get<Rgb>("gain");
    p.brightness = d.get<float>("brightness");
    p.contrast = d.get<float>("contrast");
    p.gamma = d.get<float>("gamma");
    p.masterCurve = readCurvePoints(d.get<ListPropertyValue>(CURVE_NAMES[0]));
    for (int i = 0; i < 3; ++i) p.channelCurves[std::size_t(i)] = readCurvePoints(d.get<ListPropertyValue>(CURVE_NAMES[i + 1]));
    p.preserveHue = d.get<bool>("preserveHue");
    return p;
}

IMap::OptimizedResult ColorCorrectMap::getEvaluatorImpl() const {
    ColorOrMap::Evaluator input = MapsDetail::colorOrMapEvaluator(getData(), "color");
    if (input.isConstant()) {
        // A constant input corrects to a constant once, here.
        return makeConstantResult(ColorCorrection(parameters()).apply(input.getColor()));
    }
    OptimizedResult result;
    result.evaluator = makeSharedPtr<ColorCorrectEvaluator>(std::move(input), parameters());
    return result;
}

ColorCorrectEvaluator::ColorCorrectEvaluator(ColorOrMap::Evaluator input, ColorCorrection::Parameters const& parameters)
    : mInput(std::move(input)), mCorrection(parameters) {}

RgbAlpha ColorCorrectEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return mCorrection.apply(mInput.evalColor(context, cache));
}

MonoAlpha ColorCorrectEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    RgbAlpha const c = evalColor(context, cache);
    return {c.rgb().mean(), c.alpha};
}

Dir ColorCorrectEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    return mInput.evalBump(context, cache);
}

FERRIM_REGISTER_ENTITY(ColorCorrectMap);

} // namespace Quelin
