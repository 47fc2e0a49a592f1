#include "Ferrim/colorMappingOperators/ToneCurveOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace Quelin {

namespace {
// The table spans the range of stops a render holds; beyond it the curve
// continues with its end slopes.
constexpr float STOPS_MIN = -16.f, STOPS_MAX = 16.f;
} // namespace

SharedPtr<DataObjectDefinition const> const& ToneCurveOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addList("toneCurve_points", curvePointDefinition(), "Curve",
                  "Control points in stops relative to middle grey: x is the incoming exposure, y the outgoing one.")
            .setDefault(makeCurvePoints({{-8.f, -8.f}, {0.f, 0.f}, {6.f, 6.f}}));
        b.addFloat("toneCurve_middleGrey", 0.18f, "Middle grey", "The linear value that sits at 0 stops on both axes.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.001f, 100.f));
        b.addBool("toneCurve_preserveColor", false, "Preserve color",
                  "Applies the curve to the brightest channel and scales the others with it, keeping hue and "
                  "saturation. Off, each channel follows the curve by itself.");
        return b.build("Zatho.ToneCurveOperator");
    }();
    return def;
}

ToneCurveOperator::ToneCurveOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                                OperatorGroup::CurveControl) {}

void ToneCurveOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    bool neutral = true;
    if (isActive(context)) {
        mCurve = MonotoneCurve::fromPoints(readCurvePoints(get<ListPropertyValue>("toneCurve_points")), STOPS_MIN, STOPS_MAX);
        mGrey = get<float>("toneCurve_middleGrey");
        mInvGrey = 1.f / mGrey;
        mPreserveColor = get<bool>("toneCurve_preserveColor");
        neutral = mCurve.isIdentity();
    }
    setNeutral(neutral);
}

float ToneCurveOperator::mapValue(float v) const {
    if (!(v > 0.f)) return v;
    // Huge values and +inf: the largest float's stops, never log2 of infinity.
    return mGrey * std::exp2(mCurve.evaluate(std::log2(std::min(v * mInvGrey, FLT_MAX))));
}

float ToneCurveOperator::unmapValue(float v) const {
    if (!(v > 0.f)) return v;
    return mGrey * std::exp2(mCurve.invert(std::log2(v * mInvGrey)));
}

Rgb ToneCurveOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral()) return color;
    if (mPreserveColor) {
        float const m = std::max(color.r, std::max(color.g, color.b));
        if (!(m > 0.f)) return color;
        return color * (mapValue(m) / m);
    }
    return {mapValue(color.r), mapValue(color.g), mapValue(color.b)};
}

Rgb ToneCurveOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::ToneCurve) || isNeutral()) return color;
    if (mPreserveColor) {
        float const m = std::max(color.r, std::max(color.g, color.b));
        if (!(m > 0.f)) return color;
        return color * (unmapValue(m) / m);
    }
    return {unmapValue(color.r), unmapValue(color.g), unmapValue(color.b)};
}

void ToneCurveOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::ToneCurve;
    MonotoneCurve::View const v = mCurve.view();
    float const p[] = {v.xMin, v.xMax, v.scale, v.slopeLow, v.slopeHigh, mGrey, mInvGrey, mPreserveColor ? 1.f : 0.f};
    std::copy(std::begin(p), std::end(p), s.p);
    s.table[0] = v.y;
    s.ints[0] = v.size;
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(ToneCurveOperator, "Tone Curve");

} // namespace Quelin
