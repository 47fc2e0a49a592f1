#include "Ferrim/colorMappingOperators/AdvancedFilmicOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>
#include <cmath>

namespace Quelin {

namespace {
constexpr float MIDDLE_GREY = 0.18f;
// Beyond the contrast step values are bounded here (2^60): toe and shoulder
// square them.
constexpr float INPUT_MAX = 1152921504606846976.f;
// Rec. 709 luminance weights; they sum to 1, so blending toward luminance keeps it.
constexpr float LUMA_R = 0.2126f, LUMA_G = 0.7152f, LUMA_B = 0.0722f;

float luminance(Rgb const& c) { return LUMA_R * c.r + LUMA_G * c.g + LUMA_B * c.b; }

/// Weight of the highlight desaturation: 0 up to half of white, 1 from white on, smooth between.
float highlightWeight(float luma) {
    float const t = clamp((luma - 0.5f) * 2.f, 0.f, 1.f);
    return t * t * (3.f - 2.f * t);
}

template <typename T> SharedPtr<IPropertyValidator const> range(T lo, T hi) {
    return makeSharedPtr<ClampValueToRangeValidator<T>>(lo, hi);
}
} // namespace

SharedPtr<DataObjectDefinition const> const& AdvancedFilmicOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("contrast", 1.1f, "Contrast",
                   "Contrast around middle grey: above 1 steepens the curve, below 1 flattens it.")
            .addValidator(range(0.5f, 2.f));
        b.addFloat("toe", 0.01f, "Toe", "Darkens and crushes the deepest shadows like film's toe. 0 leaves them alone.")
            .addValidator(range(0.f, 0.2f));
        b.addFloat("shoulderStrength", 0.5f, "Shoulder",
                   "Rolls highlights off smoothly toward the white point instead of clipping them. 0 leaves them alone.")
            .addValidator(range(0.f, 1.f));
        b.addFloat("whitePoint", 16.f, "White point",
                   "The linear value that the shoulder brings to display white.")
            .addValidator(range(1.f, 1000.f));
        b.addFloat("highlightDesaturation", 0.25f, "Highlight desaturation",
                   "Blends bright colours toward grey of the same luminance, as film does in its highlights.")
            .addValidator(range(0.f, 0.95f));
        return b.build("Zatho.AdvancedFilmicOperator");
    }();
    return def;
}

AdvancedFilmicOperator::AdvancedFilmicOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                                OperatorGroup::CurveControl) {}

void AdvancedFilmicOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    bool const active = isActive(context);
    mContrast = active ? get<float>("contrast") : 1.f;
    mToe = active ? get<float>("toe") : 0.f;
    mShoulder = active ? get<float>("shoulderStrength") : 0.f;
    float const white = get<float>("whitePoint");
    mInvWhite2 = 1.f / (white * white);
    mToeScale = (white + mToe) / white;
    mDesaturation = active ? get<float>("highlightDesaturation") : 0.f;
    setNeutral(mContrast == 1.f && mToe == 0.f && mShoulder == 0.f && mDesaturation == 0.f);
}

float AdvancedFilmicOperator::curve(float x) const {
    x = std::max(x, 0.f);
    if (mContrast != 1.f) x = MIDDLE_GREY * std::pow(x * (1.f / MIDDLE_GREY), mContrast);
    // The curve grows without bound; its squares must not overflow on the way.
    x = std::min(x, INPUT_MAX);
    if (mToe > 0.f) x = x * x / (x + mToe) * mToeScale;
    if (mShoulder > 0.f) {
        // Extended Reinhard: 1 at the white point.
        float const r = x * (1.f + x * mInvWhite2) / (1.f + x);
        x = x + (r - x) * mShoulder;
    }
    return x;
}

float AdvancedFilmicOperator::inverseCurve(float y) const {
    float x = std::max(y, 0.f);
    if (mShoulder > 0.f) {
        // (1 - s) x + s x (1 + k x) / (1 + x) = y  <=>  A x^2 + (1 - y) x - y = 0, A = (1 - s) + s k.
        float const a = (1.f - mShoulder) + mShoulder * mInvWhite2;
        float const b = 1.f - x;
        x = (std::sqrt(b * b + 4.f * a * x) - b) / (2.f * a);
    }
    if (mToe > 0.f) {
        // z = x^2 / (x + t)  <=>  x = (z + sqrt(z^2 + 4 t z)) / 2.
        float const z = x / mToeScale;
        x = 0.5f * (z + std::sqrt(z * z + 4.f * mToe * z));
    }
    if (mContrast != 1.f) x = MIDDLE_GREY * std::pow(x * (1.f / MIDDLE_GREY), 1.f / mContrast);
    return x;
}

Rgb AdvancedFilmicOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral()) return color;
    Rgb c(curve(color.r), curve(color.g), curve(color.b));
    if (mDesaturation > 0.f) {
        float const luma = luminance(c);
        float const a = mDesaturation * highlightWeight(luma);
        c = c + (Rgb(luma) - c) * a;
    }
    return c;
}

Rgb AdvancedFilmicOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::AdvancedFilmic) || isNeutral()) return color;
    Rgb c = color;
    if (mDesaturation > 0.f) {
        // The blend keeps luminance, so the weight is known from the result.
        float const luma = luminance(c);
        float const a = mDesaturation * highlightWeight(luma);
        c = (c - Rgb(luma) * a) / (1.f - a);
    }
    return {inverseCurve(c.r), inverseCurve(c.g), inverseCurve(c.b)};
}

void AdvancedFilmicOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::AdvancedFilmic;
    float const p[] = {mContrast, mToe, mToeScale, mShoulder, mInvWhite2, mDesaturation};
    std::copy(std::begin(p), std::end(p), s.p);
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(AdvancedFilmicOperator, "Advanced Filmic Mapping");

} // namespace Quelin
