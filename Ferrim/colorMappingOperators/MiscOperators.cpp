#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <cmath>
#include "QuelinLib/ColorMath.h"

namespace Quelin {

namespace {

using Excl = ColorMappingExclude;

SharedPtr<IPropertyValidator const> clampTo(float lo, float hi) {
    return makeSharedPtr<ClampValueToRangeValidator<float>>(lo, hi);
}

/// sign(x) * |x|^e on every lane: negative values keep their sign, 0 stays 0.
Float4 signedPow(Float4 c, Float4 e) {
    Float4 const sign = c & Float4(-0.f);
    return powApprox(abs(c), e) | sign;
}

/// The effective value of an overridable float.
float effective(UnaryColorMappingOperator const& op, StringView name, Optional<float> const& override) {
    return override ? *override : op.get<float>(name);
}

/// Takes the overrides that name one of `names` of this operator's record
/// into `store` (validated as the record would validate them); the rest go to
/// `forward`. A std::monostate value clears the override.
template <typename Store, typename Forward>
void takeOverrides(UnaryColorMappingOperator const& op, std::span<ToneMappingPropertyOverride const> overrides,
                   String& errorInfo, std::initializer_list<StringView> names, Store&& store, Forward&& forward) {
    for (auto const& o : overrides) {
        if (o.operatorType != op.getClassName()) continue;
        bool const mine = std::find(names.begin(), names.end(), StringView(o.property)) != names.end();
        if (!mine) {
            forward(std::span<ToneMappingPropertyOverride const>(&o, 1), errorInfo);
            continue;
        }
        if (std::holds_alternative<std::monostate>(o.value)) {
            store(StringView(o.property), std::monostate());
            continue;
        }
        auto const* def = op.getData().getDefinition().find(o.property);
        auto v = def->validate(o.value);
        if (!v) {
            errorInfo += "Override of \"" + o.property + "\" of \"" + op.getClassName() + "\": " + v.error() + "\n";
            continue;
        }
        store(StringView(o.property), *v);
    }
}

} // namespace

// ---------------------------------------------------------------- Simple Exposure

SharedPtr<DataObjectDefinition const> const& SimpleExposureOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("simpleExposure", 0.f, "Exposure",
                   "Exposure change in stops: every stop up doubles the image brightness, every stop down halves it.")
            .addValidator(clampTo(-20.f, 20.f))
            .setMetadata(Metadata::QUANTITY, String("Stops"));
        return b.build("Zatho.SimpleExposureOperator");
    }();
    return def;
}

SimpleExposureOperator::SimpleExposureOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> SimpleExposureOperator::createNewInstance() const { return makeSharedPtr<SimpleExposureOperator>(); }

void SimpleExposureOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mMultiplier = isActive(context) ? std::exp2(effective(*this, "simpleExposure", mExposureOverride)) : 1.f;
    setNeutral(mMultiplier == 1.f);
}

Rgb SimpleExposureOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::Exposure)) return color;
    return toRgb(toFloat4(color) / Float4(mMultiplier));
}

void SimpleExposureOperator::applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides,
                                                String& errorInfo) {
    takeOverrides(
        *this, overrides, errorInfo, {"simpleExposure"},
        [&](StringView, PropertyValue const& v) {
            if (auto const* f = std::get_if<float>(&v)) mExposureOverride = *f;
            else mExposureOverride.reset();
        },
        [&](auto o, String& e) { UnaryColorMappingOperator::applyOverridesImpl(o, e); });
}

// ---------------------------------------------------------------- Photographic Exposure

SharedPtr<DataObjectDefinition const> const& PhotographicExposureOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.PhotographicExposureOperator");
    }();
    return def;
}

PhotographicExposureOperator::PhotographicExposureOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> PhotographicExposureOperator::createNewInstance() const {
    return makeSharedPtr<PhotographicExposureOperator>();
}

void PhotographicExposureOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mMultiplier = 1.f;
    if (isActive(context)) {
        // Luminous efficacy 683 lm/W, lens transmission and vignetting 0.65,
        // reflected-light meter calibration constant 78.
        float const m = 683.f * (0.65f * context.iso / context.shutterSpeed) / (78.f * context.fNumber * context.fNumber);
        // A camera without speed or aperture would give 0 or infinity: stay neutral.
        if (std::isfinite(m) && m > 0.f) mMultiplier = m;
    }
    setNeutral(mMultiplier == 1.f);
}

Rgb PhotographicExposureOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::Exposure)) return color;
    return toRgb(toFloat4(color) / Float4(mMultiplier));
}

// ---------------------------------------------------------------- White Balance

SharedPtr<DataObjectDefinition const> const& WhiteBalanceOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("colorTemperature", 6500.f, "Color Temperature",
                   "Temperature of the light that should look white, in kelvin. Low values cool the image down, high "
                   "values warm it up; 6500 K has no effect.")
            .addValidator(clampTo(2000.f, 99999.f))
            .setMetadata(Metadata::QUANTITY, String("Temperature"));
        return b.build("Zatho.WhiteBalanceOperator");
    }();
    return def;
}

WhiteBalanceOperator::WhiteBalanceOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> WhiteBalanceOperator::createNewInstance() const { return makeSharedPtr<WhiteBalanceOperator>(); }

void WhiteBalanceOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    Rgb w(1.f);
    if (isActive(context)) w = colorAdaptation(get<float>("colorTemperature"), 6500.f);
    mFactor = Float4(w.r, w.g, w.b, 1.f);
    setNeutral(w == Rgb(1.f));
}

Rgb WhiteBalanceOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::WhiteBalance)) return color;
    return toRgb(toFloat4(color) / mFactor);
}

// ---------------------------------------------------------------- Tint

SharedPtr<DataObjectDefinition const> const& TintOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addColor("tint", Rgb(1.f, 1.f, 1.f), "Tint", "Every pixel is multiplied by this colour; white has no effect.");
        return b.build("Zatho.TintOperator");
    }();
    return def;
}

TintOperator::TintOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> TintOperator::createNewInstance() const { return makeSharedPtr<TintOperator>(); }

void TintOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    Rgb t(1.f);
    if (isActive(context)) t = mTintOverride ? *mTintOverride : get<Rgb>("tint");
    mFactor = Float4(t.r, t.g, t.b, 1.f);
    setNeutral(t == Rgb(1.f));
}

Rgb TintOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::Tint)) return color;
    // A channel the tint removed entirely cannot be restored: it stays 0.
    return toRgb((toFloat4(color) / mFactor) & (mFactor > Float4(0.f)));
}

void TintOperator::applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) {
    takeOverrides(
        *this, overrides, errorInfo, {"tint"},
        [&](StringView, PropertyValue const& v) {
            if (auto const* c = std::get_if<Rgb>(&v)) mTintOverride = *c;
            else mTintOverride.reset();
        },
        [&](auto o, String& e) { UnaryColorMappingOperator::applyOverridesImpl(o, e); });
}

// ---------------------------------------------------------------- Green-Magenta Tint

SharedPtr<DataObjectDefinition const> const& GreenMagentaTintOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("greenMagentaTint", 0.f, "Green-Magenta Tint",
                   "Positive values tint the image green, negative values magenta; 0.0 has no effect.")
            .addValidator(clampTo(-1.f, 1.f));
        return b.build("Zatho.GreenMagentaTintOperator");
    }();
    return def;
}

GreenMagentaTintOperator::GreenMagentaTintOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> GreenMagentaTintOperator::createNewInstance() const {
    return makeSharedPtr<GreenMagentaTintOperator>();
}

void GreenMagentaTintOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    float const k = isActive(context) ? get<float>("greenMagentaTint") : 0.f;
    mAmount = k;
    mActive = std::abs(k) >= 0.0001f;
    // Weights sqrt 2 and 1/sqrt 2: a positive amount raises red and blue to a
    // power above 1 and green below 1 (a green cast), a negative one the reverse.
    float const a = 1.f - std::abs(k), p = std::max(0.f, k), q = std::max(0.f, -k);
    float const er = q * 0.70710677f + p * 1.4142135f + a;
    float const eg = q * 1.4142135f + p * 0.70710677f + a;
    mExponents = Float4(er, eg, er, er);
    mInverseExponents = Float4(1.f) / mExponents;
    setNeutral(!mActive);
}

Float4 GreenMagentaTintOperator::applyExponents(Float4 c, Float4 exponents) { return signedPow(c, exponents); }

Rgb GreenMagentaTintOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::GreenMagentaTint) || !mActive) return color;
    return toRgb(applyExponents(toFloat4(color), mInverseExponents));
}

// ---------------------------------------------------------------- Saturation

SharedPtr<DataObjectDefinition const> const& SaturationOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("saturation", 0.f, "Saturation",
                   "Added to the saturation of every pixel: -1.0 turns the image grey, 0.0 has no effect.")
            .addValidator(clampTo(-1.f, 1.f));
        return b.build("Zatho.SaturationOperator");
    }();
    return def;
}

SaturationOperator::SaturationOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> SaturationOperator::createNewInstance() const { return makeSharedPtr<SaturationOperator>(); }

void SaturationOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mAmount = isActive(context) ? get<float>("saturation") : 0.f;
    setNeutral(mAmount == 0.f);
}

Float4 SaturationOperator::shiftSaturation(Float4 c, float offset, bool inverse) {
    alignas(16) float l[4];
    c.store(l);
    float const r = l[0], g = l[1], b = l[2];
    float const v = std::max(r, std::max(g, b));
    float const chroma = v - std::min(r, std::min(g, b));
    float s = v > 0.f ? chroma / v : 0.f;
    // Hexcone hue as a fraction of a turn.
    float h = 0.f;
    if (chroma > 0.f) {
        if (v == r) h = (g - b) / chroma;
        else if (v == g) h = (b - r) / chroma + 2.f;
        else h = (r - g) / chroma + 4.f;
        h *= 1.f / 6.f;
        if (h < 0.f) h += 1.f;
    }
    if (s > 0.0001f) s = std::max(0.f, s + offset);  // a grey stays grey
    // Back: three triangle waves a third of a turn apart, scaled by S and V.
    Float4 const phase = Float4(h + 1.f, h + 2.f / 3.f, h + 1.f / 3.f, 0.f);
    Float4 const frac = phase - floor(phase);
    Float4 const tri = min(max(abs(frac * Float4(6.f) - Float4(3.f)) - Float4(1.f), Float4(0.f)), Float4(1.f));
    Float4 rgb = Float4(v) * (Float4(1.f - s) + Float4(s) * tri);
    if (inverse) rgb = max(rgb, Float4(0.f));
    return Float4(rgb[0], rgb[1], rgb[2], l[3]);
}

Rgb SaturationOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::Saturation) || mAmount == 0.f) return color;
    return toRgb(shiftSaturation(toFloat4(color), -mAmount, true));
}

// ---------------------------------------------------------------- Contrast

SharedPtr<DataObjectDefinition const> const& ContrastOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("contrast", 1.f, "Contrast",
                   "Above 1.0 the image gets more contrast, below 1.0 less; 1.0 has no effect.")
            .addValidator(clampTo(0.f, 5.f));
        return b.build("Zatho.ContrastOperator");
    }();
    return def;
}

ContrastOperator::ContrastOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::Basic) {}

SharedPtr<Entity> ContrastOperator::createNewInstance() const { return makeSharedPtr<ContrastOperator>(); }

void ContrastOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    float const x = isActive(context) ? get<float>("contrast") : 1.f;
    if (mPreparedContrast && std::abs(*mPreparedContrast - x) <= 0.0001f) return;
    mPreparedContrast = x;
    mActive = x != 1.f;
    mSteepening = x >= 1.f;
    float h, l;
    if (mSteepening) {
        mSlope = -x;
        h = 0.5f * x;
        l = -0.5f * x;
    } else {
        mSlope = 10.f * (x - 1.f);
        h = -5.f * (x - 1.f);
        l = 5.f * (x - 1.f);
    }
    // Rescale the logistic so that perceptual 0 and 1 stay fixed.
    mScale = 0.5f / (0.5f - 1.f / (std::exp(h) + 1.f));
    mOffset = 0.5f - 0.5f * mScale;
    mLow = std::exp(l);
    mHigh = 1.f / mLow;
    setNeutral(!mActive);
}

Float4 ContrastOperator::apply(Float4 c, bool steepening) const {
    // Perceptual encoding and its approximate inverse: two fixed rational fits.
    auto encode = [](Float4 x) {
        Float4 const n = ((Float4(13.85573769f) * x + Float4(17.44413376f)) * x + Float4(1.77772963f)) * x +
                         Float4(0.00817682f);
        Float4 const d = ((Float4(3.95005584f) * x + Float4(11.96034527f)) * x + Float4(1.72200322f)) * x +
                         Float4(0.0093355f);
        return n / d - Float4(0.8757956f);
    };
    auto decode = [](Float4 z) {
        Float4 const n = ((Float4(3.80483222f) * z + Float4(0.63405341f)) * z + Float4(0.51218796f)) * z +
                         Float4(0.18229988f);
        Float4 const d = ((Float4(0.10437664f) * z - Float4(0.52414358f)) * z + Float4(3.63386488f)) * z +
                         Float4(1.27901232f);
        return n / d - Float4(0.14250813f);
    };
    constexpr float LOG2_E = 1.44269504f, LN_2 = 0.69314718f;
    Float4 const p = encode(c);
    Float4 z;
    if (steepening) {
        Float4 const y = exp2Approx((p - Float4(0.5f)) * Float4(mSlope * LOG2_E));
        z = Float4(mScale) / (y + Float4(1.f)) + Float4(mOffset);
    } else {
        Float4 const w = min(max(Float4(mScale) / (p - Float4(mOffset)) - Float4(1.f), Float4(mLow)), Float4(mHigh));
        z = log2Approx(w) * Float4(LN_2 / mSlope) + Float4(0.5f);
    }
    return decode(z);
}

namespace {
// The curve only acts inside (0, 1).
constexpr float CONTRAST_LOW = 0.000001f, CONTRAST_HIGH = 0.999999f;
Float4 outsideContrastRange(Float4 c) { return (c <= Float4(CONTRAST_LOW)) | (c >= Float4(CONTRAST_HIGH)); }
} // namespace

Float4 ContrastOperator::mapLanes(Float4 c) const {
    if (!mActive) return c;
    return select(outsideContrastRange(c), c, max(apply(c, mSteepening), Float4(0.f)));
}

Rgb ContrastOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::Contrast) || !mActive) return color;
    Float4 const target = toFloat4(color);
    // The other branch with the same constants inverts the logistic, but the
    // two rational fits are only approximate inverses of each other (about
    // 30 % apart near black), so a bracketed Newton search on the forward
    // curve finishes the job from that estimate. The curve increases from
    // about 0.001 up; below, where the fits bend back, the search settles on
    // the nearest dark value.
    Float4 lo(CONTRAST_LOW), hi(CONTRAST_HIGH);
    Float4 x = min(max(apply(target, !mSteepening), lo), hi);
    Float4 const tolerance = Float4(1e-6f) * target + Float4(1e-9f);
    for (int step = 0; step < 30; ++step) {
        Float4 const f = apply(x, mSteepening) - target;
        if (((abs(f) <= tolerance).mask() & 7) == 7) break;
        Float4 const above = f > Float4(0.f);
        hi = select(above, x, hi);
        lo = select(above, lo, x);
        Float4 const h = max(x * Float4(1e-3f), Float4(1e-7f));
        Float4 const slope = (apply(x + h, mSteepening) - apply(x - h, mSteepening)) / (h + h);
        Float4 const next = x - f / slope;
        Float4 const usable = (slope > Float4(0.f)) & (next > lo) & (next < hi);
        x = select(usable, next, (lo + hi) * Float4(0.5f));
    }
    return toRgb(select(outsideContrastRange(target), target, max(x, Float4(0.f))));
}

// ---------------------------------------------------------------- Vignette

SharedPtr<DataObjectDefinition const> const& VignetteOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("intensity", 0.f, "Intensity",
                   "How far the darkening reaches into the image and how dark the corners get; 0.0 has no effect.")
            .addValidator(clampTo(0.f, 2.f));
        b.addFloat("falloff", 0.f, "Falloff",
                   "Sharpness of the transition: positive values give a harder edge, negative values a softer one.")
            .addValidator(clampTo(-2.f, 2.f));
        return b.build("Zatho.VignetteOperator");
    }();
    return def;
}

VignetteOperator::VignetteOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                                OperatorGroup::Basic) {}

SharedPtr<Entity> VignetteOperator::createNewInstance() const { return makeSharedPtr<VignetteOperator>(); }

void VignetteOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    bool const on = isActive(context);
    float const intensity = on ? effective(*this, "intensity", mIntensityOverride) : 0.f;
    float const falloff = on ? effective(*this, "falloff", mFalloffOverride) : 0.f;
    // Positions are normalised by the longer side and centred.
    float const longer = std::max(context.imageSize.x, context.imageSize.y);
    mScale = longer > 0.f ? 1.f / longer : 1.f;
    mCenterX = 0.5f * mScale * context.imageSize.x;
    mCenterY = 0.5f * mScale * context.imageSize.y;
    mOffsetX = context.regionOffset.x;
    mOffsetY = context.regionOffset.y;
    float const start = std::max(0.f, 1.f - intensity);
    mStartRadius2 = start * start;
    mActive = intensity > 0.f && context.vignetteAllowed;
    mSteepness = mActive ? std::exp(2.5f * falloff) / (2.f / std::max(1.f, intensity) - mStartRadius2) : 0.f;
    setNeutral(!mActive);
}

float VignetteOperator::factor(float x, float y) const {
    float const u = (x + mOffsetX) * mScale - mCenterX;
    float const v = (y + mOffsetY) * mScale - mCenterY;
    float const t = std::clamp((u * u + v * v - mStartRadius2) * mSteepness, 0.f, 1.f);
    float w = 1.f - t;
    w *= w;
    w *= w;
    return w * w * w * (w * (6.f * w - 15.f) + 10.f);  // smootherstep
}

Rgb VignetteOperator::mapImpl(Rgb const& color, Pixel pixel) const {
    if (!mActive) return color * 1.f;
    return color * factor(float(pixel.x), float(pixel.y));
}

template <typename Color> void VignetteOperator::mapRows(std::span<Color> pixels, Pixel origin, Pixel extent) const {
    if (!mActive || extent.x <= 0) return;
    std::size_t const width = std::size_t(extent.x);
    std::size_t const rows = std::min(std::size_t(std::max(extent.y, 0)), pixels.size() / width);
    for (std::size_t row = 0; row < rows; ++row) {
        Color* p = pixels.data() + row * width;
        float const y = float(origin.y + std::int32_t(row));
        for (std::size_t col = 0; col < width; ++col) {
            float const f = factor(float(origin.x + std::int32_t(col)), y);
            p[col].r *= f;
            p[col].g *= f;
            p[col].b *= f;
        }
    }
}

void VignetteOperator::mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    mapRows(pixels, origin, extent);
}
void VignetteOperator::mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    mapRows(pixels, origin, extent);
}

Rgb VignetteOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude>) const {
    // The vignette depends on the pixel, which unmapping does not know: never undone.
    return color;
}

void VignetteOperator::applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) {
    takeOverrides(
        *this, overrides, errorInfo, {"intensity", "falloff"},
        [&](StringView name, PropertyValue const& v) {
            auto& target = name == "intensity" ? mIntensityOverride : mFalloffOverride;
            if (auto const* f = std::get_if<float>(&v)) target = *f;
            else target.reset();
        },
        [&](auto o, String& e) { UnaryColorMappingOperator::applyOverridesImpl(o, e); });
}

// ---------------------------------------------------------------- Linear to sRGB

SharedPtr<DataObjectDefinition const> const& LinearToSrgbOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.LinearToSrgbOperator");
    }();
    return def;
}

LinearToSrgbOperator::LinearToSrgbOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Srgb,
                               OperatorGroup::Hidden) {}

SharedPtr<Entity> LinearToSrgbOperator::createNewInstance() const { return makeSharedPtr<LinearToSrgbOperator>(); }

void LinearToSrgbOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mExponent = isActive(context) && context.gamma > 0.f ? 1.f / context.gamma : 1.f;
    setNeutral(mExponent == 1.f);
}

Float4 LinearToSrgbOperator::mapLanes(Float4 c) const {
    return isNeutral() ? c : powApprox(max(c, Float4(0.f)), mExponent);
}

Rgb LinearToSrgbOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::SrgbConversion) || isNeutral()) return color;
    return toRgb(signedPow(toFloat4(color), Float4(1.f / mExponent)));
}

// ---------------------------------------------------------------- sRGB to Linear

SharedPtr<DataObjectDefinition const> const& SrgbToLinearOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.SrgbToLinearOperator");
    }();
    return def;
}

SrgbToLinearOperator::SrgbToLinearOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Srgb, OperatorColorEncoding::Linear,
                               OperatorGroup::Hidden) {}

SharedPtr<Entity> SrgbToLinearOperator::createNewInstance() const { return makeSharedPtr<SrgbToLinearOperator>(); }

void SrgbToLinearOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mExponent = isActive(context) && context.gamma > 0.f ? context.gamma : 1.f;
    setNeutral(mExponent == 1.f);
}

Float4 SrgbToLinearOperator::mapLanes(Float4 c) const { return isNeutral() ? c : signedPow(c, Float4(mExponent)); }

Rgb SrgbToLinearOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(Excl::SrgbConversion) || isNeutral()) return color;
    return toRgb(signedPow(toFloat4(color), Float4(1.f / mExponent)));
}

// ---------------------------------------------------------------- Identity

SharedPtr<DataObjectDefinition const> const& IdentityOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.IdentityOperator");
    }();
    return def;
}

IdentityOperator::IdentityOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Passthrough,
                               OperatorColorEncoding::Passthrough, OperatorGroup::Hidden) {}

SharedPtr<Entity> IdentityOperator::createNewInstance() const { return makeSharedPtr<IdentityOperator>(); }

void IdentityOperator::prepareForApplicationImpl(ColorMappingContext const&) { setNeutral(true); }

Rgb IdentityOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude>) const { return color; }

// ---------------------------------------------------------------- compiled forms

void SimpleExposureOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendScale(Rgb(mMultiplier));
}

void PhotographicExposureOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendScale(Rgb(mMultiplier));
}

void WhiteBalanceOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendScale(toRgb(mFactor));
}

void TintOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendScale(toRgb(mFactor));
}

namespace {
ColorProgramBuilder::Step programStep(ColorProgramBuilder::Kind kind, std::initializer_list<float> params) {
    ColorProgramBuilder::Step s;
    s.kind = kind;
    std::copy(params.begin(), params.end(), s.p);
    return s;
}
} // namespace

void GreenMagentaTintOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (mActive) builder.append(programStep(ColorProgramBuilder::Kind::SignedPow, {mExponents[0], mExponents[1], mExponents[2]}));
}

void SaturationOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (mAmount != 0.f) builder.append(programStep(ColorProgramBuilder::Kind::Saturation, {mAmount}));
}

void ContrastOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (mActive)
        builder.append(programStep(ColorProgramBuilder::Kind::Contrast,
                                   {mSlope, mScale, mOffset, mLow, mHigh, mSteepening ? 1.f : 0.f}));
}

void VignetteOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (mActive)
        builder.append(programStep(ColorProgramBuilder::Kind::Vignette, {mStartRadius2, mSteepness, mScale, mCenterX,
                                                                         mCenterY, mOffsetX, mOffsetY}));
}

void LinearToSrgbOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.append(programStep(ColorProgramBuilder::Kind::Pow, {mExponent, mExponent, mExponent}));
}

void SrgbToLinearOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.append(programStep(ColorProgramBuilder::Kind::SignedPow, {mExponent, mExponent, mExponent}));
}

FERRIM_REGISTER_COLOR_OPERATOR(ContrastOperator, "Contrast");
FERRIM_REGISTER_COLOR_OPERATOR(GreenMagentaTintOperator, "Green-Magenta Tint");
FERRIM_REGISTER_COLOR_OPERATOR(IdentityOperator, "Identity");
FERRIM_REGISTER_COLOR_OPERATOR(LinearToSrgbOperator, "Linear to sRGB");
FERRIM_REGISTER_COLOR_OPERATOR(PhotographicExposureOperator, "Photographic Exposure");
FERRIM_REGISTER_COLOR_OPERATOR(SaturationOperator, "Saturation");
FERRIM_REGISTER_COLOR_OPERATOR(SimpleExposureOperator, "Simple Exposure");
FERRIM_REGISTER_COLOR_OPERATOR(SrgbToLinearOperator, "sRGB to Linear");
FERRIM_REGISTER_COLOR_OPERATOR(TintOperator, "Tint");
FERRIM_REGISTER_COLOR_OPERATOR(VignetteOperator, "Vignette");
FERRIM_REGISTER_COLOR_OPERATOR(WhiteBalanceOperator, "White Balance");

} // namespace Quelin
