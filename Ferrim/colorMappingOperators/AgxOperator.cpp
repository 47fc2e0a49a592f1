#include "Ferrim/colorMappingOperators/AgxOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"
#include "Ferrim/colorMappingOperators/DisplayTransformMath.h"

#include <algorithm>
#include <cmath>

namespace Quelin {

namespace Math = DisplayTransformMath;

SharedPtr<DataObjectDefinition const> const& AgxOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.AgxOperator");
    }();
    return def;
}

AgxOperator::AgxOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::FinalLook) {
    setNeutral(false);  // active until prepared otherwise
}

SharedPtr<Entity> AgxOperator::createNewInstance() const { return makeSharedPtr<AgxOperator>(); }

void AgxOperator::prepareForApplicationImpl(ColorMappingContext const& context) { setNeutral(!isActive(context)); }

void AgxOperator::mapPlanes(Float4& r, Float4& g, Float4& b) const {
    if (!isNeutral()) Math::agx(r, g, b);
}

Float4 AgxOperator::mapLanes(Float4 c) const {
    if (isNeutral()) return c;
    Float4 r(c[0]), g(c[1]), b(c[2]);
    Math::agx(r, g, b);
    return Float4(r[0], g[0], b[0], c[3]);
}

namespace {
/// The sigmoid's input for a value between its ends: Newton steps from the
/// straight line between them (the slope is at least 0.1 on [0, 1]), kept
/// inside the bracket.
double invertSigmoid(double s) {
    auto poly = [](double u, bool derivative) {
        double p = 0.0;
        for (int k = 6; k >= (derivative ? 1 : 0); --k) p = p * u + (derivative ? k : 1) * double(Math::AGX_SIGMOID[k]);
        return p;
    };
    double const lo0 = poly(0.0, false), hi0 = poly(1.0, false);
    if (s <= lo0) return 0.0;
    if (s >= hi0) return 1.0;
    double lo = 0.0, hi = 1.0, u = (s - lo0) / (hi0 - lo0);
    for (int i = 0; i < 60; ++i) {
        double const f = poly(u, false) - s;
        if (f > 0) hi = u;
        else lo = u;
        double next = u - f / poly(u, true);
        if (!(next > lo && next < hi)) next = 0.5 * (lo + hi);
        if (std::abs(next - u) < 1e-13) return next;
        u = next;
    }
    return u;
}
} // namespace

Rgb AgxOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::AcesOt) || isNeutral()) return color;
    // Display values out of [0, 1] come from no input: clamped first.
    double o[3];
    for (int i = 0; i < 3; ++i) o[i] = std::pow(std::clamp(double(color[i]), 0.0, 1.0), 1.0 / Math::AGX_GAMMA);
    // The outset is the inset's inverse: the inset undoes it, and the outset the inset.
    double y[3];
    for (int i = 0; i < 3; ++i) {
        double s = 0.0;
        for (int j = 0; j < 3; ++j) s += double(Math::AGX_INSET[3 * i + j]) * o[j];
        double const u = invertSigmoid(s);
        y[i] = std::exp2(u * double(Math::AGX_MAX_EV - Math::AGX_MIN_EV) + double(Math::AGX_MIN_EV));
    }
    Rgb out;
    for (int i = 0; i < 3; ++i) {
        double s = 0.0;
        for (int j = 0; j < 3; ++j) s += double(Math::AGX_OUTSET[3 * i + j]) * y[j];
        out[i] = float(s);
    }
    return out;
}

void AgxOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    // Matrix, encoding, matrix, power, clamp as separate steps: the inset
    // matrix joins the affine operators before it, and the power is the
    // fixed-exponent one of the display encodings.
    using Kind = ColorProgramBuilder::Kind;
    auto matrix = [](float const (&m)[9]) { return Matrix33(m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8]); };
    builder.appendAffine(matrix(Math::AGX_INSET));
    ColorProgramBuilder::Step encode;
    encode.kind = Kind::Agx;
    builder.append(encode);
    builder.appendAffine(matrix(Math::AGX_OUTSET));
    ColorProgramBuilder::Step power;
    power.kind = Kind::Pow;
    power.p[0] = power.p[1] = power.p[2] = Math::AGX_GAMMA;
    builder.append(power);
    ColorProgramBuilder::Step clamp;
    clamp.kind = Kind::Clamp;
    clamp.p[0] = 0.f;
    clamp.p[1] = 1.f;
    builder.append(clamp);
}

FERRIM_REGISTER_COLOR_OPERATOR(AgxOperator, "AgX");

} // namespace Quelin
