#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>
#include <cmath>

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& DisplayViewOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addString("inputSpace", "scene_linear", "Input space",
                    "Colour space of the values the operator receives (a space or role of the config)");
        b.addString("display", "sRGB - Display", "Display", "Display of the config the image is shown on");
        b.addString("view", "Standard", "View", "View of the display: how scene colours are rendered for it");
        b.addString("looks", String(), "Looks", "Looks of the config applied first, comma-separated (optional)");
        return b.build("Zatho.DisplayViewOperator");
    }();
    return def;
}

FERRIM_REGISTER_COLOR_OPERATOR(DisplayViewOperator, "Display / View");

DisplayViewOperator::DisplayViewOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Srgb,
                                OperatorGroup::FinalLook) {}

SharedPtr<Entity> DisplayViewOperator::createNewInstance() const { return makeSharedPtr<DisplayViewOperator>(); }

void DisplayViewOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    if (!isActive(context)) {
        setNeutral(true);
        return;
    }
    ColorSpaces::DisplayView const dv{get<String>("inputSpace"), get<String>("display"), get<String>("view"),
                                      get<String>("looks")};
    // The config may change between renders ($OCIO): it is part of the key.
    String const key = ColorSpaces::configName() + '\n' + dv.input + '\n' + dv.display + '\n' + dv.view + '\n' + dv.looks;
    if (key != mPreparedKey) {
        mPreparedKey = key;
        mError.clear();
        mForward = {};
        mInverse = {};
        mHasInverse = false;
        if (auto forward = ColorSpaces::makeDisplayView(dv)) {
            mForward = *forward;
            if (auto inverse = ColorSpaces::makeDisplayView(dv, true)) {
                mInverse = *inverse;
                mHasInverse = true;
            }
        } else {
            mError = forward.error();
        }
    }
    setNeutral(!mError.empty() || mForward.isNoOp());
}

Rgb DisplayViewOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral()) return color;
    // NaN is taken as 0 (compiled programs send non-finite pixels here);
    // infinities as a huge finite value, so that a matrix of mixed signs
    // cannot turn them into NaN: the display's range then bounds them.
    auto const defined = [](float v) { return v == v ? std::clamp(v, -1e30f, 1e30f) : 0.f; };
    return mForward.apply(Rgb(defined(color.r), defined(color.g), defined(color.b)));
}

void DisplayViewOperator::mapImpl(std::span<Rgb> pixels, Pixel, Pixel extent) const {
    if (isNeutral()) return;
    static_assert(sizeof(Rgb) == 3 * sizeof(float));
    mForward.applyRgb(reinterpret_cast<float*>(pixels.data()), bucketSize(pixels.size(), extent));
}

void DisplayViewOperator::mapImpl(std::span<RgbAlpha> pixels, Pixel, Pixel extent) const {
    if (isNeutral()) return;
    // Through the colour channels only: alpha is not a colour.
    for (RgbAlpha& p : pixels.first(bucketSize(pixels.size(), extent))) {
        Rgb const c = mForward.apply(Rgb(p.r, p.g, p.b));
        p.r = c.r, p.g = c.g, p.b = c.b;
    }
}

Rgb DisplayViewOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    // A display encoding: excluded with the sRGB conversions.
    if (exclude.has(ColorMappingExclude::SrgbConversion) || isNeutral() || !mHasInverse) return color;
    return mInverse.apply(color);
}

void DisplayViewOperator::mapPlanes(void const* self, float* r, float* g, float* b, int count) {
    static_cast<DisplayViewOperator const*>(self)->mForward.applyPlanes(r, g, b, std::size_t(count));
}

void DisplayViewOperator::mapPacked(void const* self, float* pixels, int stride, std::size_t count) {
    auto const& forward = static_cast<DisplayViewOperator const*>(self)->mForward;
    if (stride == 4) forward.applyRgba(pixels, count);
    else forward.applyRgb(pixels, count);
}

namespace {

using Step = ColorSpaces::ProcessorStep;

/// A power with a straight segment as a PowLinear step, with OpenColorIO's
/// own parameters of the curve (its GammaOpUtils: the exponent and offset
/// raised to at least 1 + 1e-6 and 1e-6, the segment meeting the power where
/// value and slope agree).
ColorProgramBuilder::Step powLinearStep(double gamma, double offset, bool encode, bool mirror) {
    double const g = std::max(gamma, 1.0 + 1e-6), o = std::max(offset, 1e-6);
    double const knee = o * g / ((g - 1.0) * (1.0 + o));  // the curve's input at the break, decoded
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::PowLinear;
    double p[7];
    if (encode)
        p[0] = 1.0 / g, p[1] = 1.0, p[2] = 0.0, p[3] = 1.0 + o, p[4] = -o, p[5] = std::pow(knee, g),
        p[6] = std::pow((g - 1.0) / o, g - 1.0) * std::pow((1.0 + o) / g, g);
    else
        p[0] = g, p[1] = 1.0 / (1.0 + o), p[2] = o / (1.0 + o), p[3] = 1.0, p[4] = 0.0, p[5] = o / (g - 1.0),
        p[6] = (g - 1.0) / o * std::pow(knee, g);
    for (int i = 0; i < 7; ++i) s.p[i] = float(p[i]);
    s.p[7] = mirror ? 1.f : 0.f;
    return s;
}

/// The program's steps for OpenColorIO's, or false when one has no step here
/// (then nothing was appended).
bool appendProcessorSteps(ColorProgramBuilder& builder, Stack<Step> const& steps) {
    auto sameForColours = [](double const (&v)[3]) { return v[0] == v[1] && v[0] == v[2]; };
    for (Step const& s : steps) {
        if (s.kind == Step::Kind::Exponent && s.negative == Step::Negative::PassThrough) return false;
        if (s.kind == Step::Kind::ExponentWithLinear && !(sameForColours(s.exponent) && sameForColours(s.linearOffset)))
            return false;
    }
    for (Step const& s : steps) {
        switch (s.kind) {
        case Step::Kind::Matrix: {
            double const* m = s.matrix;
            builder.appendAffine(Matrix33(float(m[0]), float(m[1]), float(m[2]), float(m[3]), float(m[4]), float(m[5]),
                                          float(m[6]), float(m[7]), float(m[8])),
                                 Rgb(float(m[9]), float(m[10]), float(m[11])));
            break;
        }
        case Step::Kind::Range: {
            if (s.scale != 1.0 || s.offset != 0.0) {
                float const k = float(s.scale);
                builder.appendAffine(Matrix33(k, 0.f, 0.f, 0.f, k, 0.f, 0.f, 0.f, k), Rgb(float(s.offset)));
            }
            ColorProgramBuilder::Step clamp;
            clamp.kind = ColorProgramBuilder::Kind::Clamp;
            clamp.p[0] = float(s.low), clamp.p[1] = float(s.high);
            if (std::isfinite(clamp.p[0]) || std::isfinite(clamp.p[1])) builder.append(clamp);
            break;
        }
        case Step::Kind::Exponent: {
            ColorProgramBuilder::Step power;
            power.kind = s.negative == Step::Negative::Mirror ? ColorProgramBuilder::Kind::SignedPow
                                                              : ColorProgramBuilder::Kind::Pow;
            for (int ch = 0; ch < 3; ++ch) power.p[ch] = float(s.exponent[ch]);
            builder.append(power);
            break;
        }
        case Step::Kind::ExponentWithLinear:
            builder.append(powLinearStep(s.exponent[0], s.linearOffset[0], s.encode, s.negative == Step::Negative::Mirror));
            break;
        }
    }
    return true;
}

} // namespace

void DisplayViewOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    // OpenColorIO's operations as the program's own steps where they are
    // matrices, ranges and powers: its CPU processor raises each value
    // through the C library's powf, ten times the cost of the whole step here.
    if (auto const steps = mForward.steps(); steps && appendProcessorSteps(builder, *steps)) return;
    builder.appendPlanesCallback(&mapPlanes, &mapPacked, this);
}

} // namespace Quelin
