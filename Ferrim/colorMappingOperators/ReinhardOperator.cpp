#include "Ferrim/colorMappingOperators/ReinhardOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <cmath>

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& ReinhardOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("highlightCompression", 1.f, "Highlight Compression",
                   "Compresses highlights in the image to reduce / remove burned - out areas. Increasing the value "
                   "removes burned-out areas, decreasing it amplifies highlights.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.01f, 999.f));
        return b.build("Zatho.ReinhardOperator");
    }();
    return def;
}

ReinhardOperator::ReinhardOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::HighlightControl) {}

SharedPtr<Entity> ReinhardOperator::createNewInstance() const { return makeSharedPtr<ReinhardOperator>(); }

void ReinhardOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    // Never neutral: even with k = 1 negative values map to 0.
    setNeutral(false);
    float const h = isActive(context) ? get<float>("highlightCompression") : 1.f;
    // Changes within the tolerance keep the curve (and so the image) stable.
    if (mPrepared && std::abs(mHighlight - h) <= 0.0001f) return;
    mHighlight = h;
    mK = 1.f / (h * h);
    mPrepared = true;
}

Rgb ReinhardOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::Reinhard)) return color;
    // Display values below 0 come from no input: they unmap as 0 does.
    Float4 const c = max(toFloat4(color), Float4(0.f));
    // k = 1 (switched off, or the white point at 1): the quadratic below
    // factors as (x + 1)(x - c), so its larger root is exact without rounding.
    if (mK == 1.f) return toRgb(max(c, Float4(-1.f)));
    // Positive root of k x^2 + (1 - c) x - c = 0. Where 1 - c > 0 the textbook
    // form (sqrt(D) - (1 - c)) / 2k cancels badly for small c; the equivalent
    // 2c / (sqrt(D) + (1 - c)) does not. D < 0 (negative c with k > 1, which
    // mapping never produces) has no root; taking D as 0 keeps the result finite.
    Float4 const b = Float4(1.f) - c;
    Float4 const k = Float4(mK);
    Float4 const root = sqrt(max(Float4(4.f) * k * c + b * b, Float4(0.f)));
    Float4 const large = (root - b) / (Float4(2.f) * k);
    Float4 const small = Float4(2.f) * c / (root + b);
    // Beyond 2^40 the root is c / k to float precision, and b^2 would
    // overflow from 2^64 on.
    Float4 const huge = c / k;
    return toRgb(select(c > Float4(1099511627776.f), huge, select(b > Float4(0.f), small, large)));
}

void ReinhardOperator::compileMapping(ColorProgramBuilder& builder) const {
    // Always applied: switched off (k = 1) the curve still takes negative
    // values to 0.
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::Reinhard;
    s.p[0] = getCoefficient();
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(ReinhardOperator, "Reinhard Highlight Compression");

} // namespace Quelin
