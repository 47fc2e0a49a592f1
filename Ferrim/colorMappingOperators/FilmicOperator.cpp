#include "Ferrim/colorMappingOperators/FilmicOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <cmath>

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& FilmicOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        auto strength = [] { return makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f); };
        b.addFloat("highlightCompression", 1.f, "Highlight Compression",
                   "Applies filmic tone mapping to bright regions of the image, resulting in subtle highlight "
                   "compression without loss of color saturation.")
            .addValidator(strength());
        b.addFloat("richShadows", 1.f, "Rich Shadows",
                   "Applies filmic tone mapping to dark regions of the image, resulting in increased "
                   "richness/saturation of shadows.")
            .addValidator(strength());
        return b.build("Zatho.FilmicOperator");
    }();
    return def;
}

FilmicOperator::FilmicOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::CurveControl) {}

SharedPtr<Entity> FilmicOperator::createNewInstance() const { return makeSharedPtr<FilmicOperator>(); }

void FilmicOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    bool const on = isActive(context);
    float const h = on ? get<float>("highlightCompression") : 0.f;
    float const s = on ? get<float>("richShadows") : 0.f;
    if (mPrepared && std::abs(h - mCachedHighlights) <= 0.0001f && std::abs(s - mCachedShadows) <= 0.0001f) return;
    mCachedHighlights = h;
    mCachedShadows = s;
    mHighlights = h;
    mShadows = s;
    mUpperBracket = 10000000.f;
    // Single precision in exactly this form: with H = 1 the cap is 1.0.
    float const cap = 10000000.f - 9999999.f * ((h - s) + s);
    mCap = Float4(cap);
    mPrepared = true;
    setNeutral(h == 0.f && s == 0.f);
}

Rgb FilmicOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::Filmic) || (mHighlights == 0.f && mShadows == 0.f)) return color;
    // Channels at or below 0 come from 0 (the curve's value there); they are
    // solved as 1 and set to 0 after. The fourth lane repeats red so that it
    // converges with the others.
    Float4 const in(color.r, color.g, color.b, color.r);
    Float4 const positive = in > Float4(0.f);
    Float4 const target = min(select(positive, in, Float4(1.f)), mCap);
    Float4 const highMinusShadow(mHighlights - mShadows);
    Float4 lo(0.f), hi(mUpperBracket);
    Float4 x = target;
    for (int iteration = 0; iteration < 100; ++iteration) {
        // Newton steps that leave the bracket restart from its middle.
        Float4 const outside = (x < lo) | (x > hi);
        x = select(outside, (lo + hi) * Float4(0.5f), x);
        Float4 const g = curve(x);
        Float4 const w = strength(x);
        Float4 const f = x + w * (g - x) - target;
        if (((abs(f) < Float4(1e-6f) * x).mask() & 7) == 7) return toRgb(x & positive);
        // The last term carries an extra factor x against the exact derivative
        // (H - S)(g - x); it only shapes the steps, the bracket keeps them safe.
        Float4 const slope = (curveDerivative(x) - Float4(1.f)) * w + Float4(1.f) +
                             ((x < Float4(1.f)) & (x * highMinusShadow * (g - x)));
        Float4 const above = f >= Float4(0.f);
        hi = select(above, x, hi);
        lo = select(above, lo, x);
        x = x - f / slope;
    }
    return toRgb(((lo + hi) * Float4(0.5f)) & positive);
}

void FilmicOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::Filmic;
    s.p[0] = mHighlights;
    s.p[1] = mShadows;
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(FilmicOperator, "Filmic Mapping");

} // namespace Quelin
