#include "Ferrim/colorMappingOperators/AcesOtOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <cmath>

namespace Quelin {

namespace {

Matrix33 makeMatrix(float const (&rows)[3][3]) {
    Matrix33 m;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m.m[i][j] = rows[i][j];
    return m;
}

// Adjugate over determinant, in single precision.
Matrix33 invert(Matrix33 const& a) {
    auto const& m = a.m;
    float const c00 = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    float const c01 = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    float const c02 = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    float const det = m[0][0] * c00 + m[0][1] * c01 + m[0][2] * c02;
    float const s = 1.f / det;
    Matrix33 r;
    r.m[0][0] = c00 * s;
    r.m[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) * s;
    r.m[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) * s;
    r.m[1][0] = c01 * s;
    r.m[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) * s;
    r.m[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) * s;
    r.m[2][0] = c02 * s;
    r.m[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) * s;
    r.m[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) * s;
    return r;
}

struct Constants {
    Matrix33 input = makeMatrix({{0.59719f, 0.35458f, 0.04823f}, {0.07600f, 0.90834f, 0.01566f}, {0.02840f, 0.13383f, 0.83777f}});
    Matrix33 output = makeMatrix({{1.60475f, -0.53108f, -0.07367f}, {-0.10208f, 1.10813f, -0.00605f}, {-0.00327f, -0.07276f, 1.07602f}});
    Matrix33 inverseInput = invert(input);
    Matrix33 inverseOutput = invert(output);
    // Columns as lanes, for m * c = col0 * r + col1 * g + col2 * b.
    Float4 columns[4][3];
};

Constants const& constants() {
    static Constants const sConstants = [] {
        Constants c;
        Matrix33 const* ms[4] = {&c.input, &c.output, &c.inverseInput, &c.inverseOutput};
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 3; ++j) c.columns[k][j] = Float4(ms[k]->m[0][j], ms[k]->m[1][j], ms[k]->m[2][j], 0.f);
        return c;
    }();
    return sConstants;
}
// Made at load so render threads never race on the first use.
[[maybe_unused]] Constants const& sLoadTimeConstants = constants();

enum MatrixIndex { INPUT = 0, OUTPUT = 1, INVERSE_INPUT = 2, INVERSE_OUTPUT = 3 };

template <int LANE> Float4 splat(Float4 c) {
#if QUELIN_FLOAT4_SSE
    return _mm_shuffle_ps(c.v, c.v, _MM_SHUFFLE(LANE, LANE, LANE, LANE));
#else
    return Float4(c[LANE]);
#endif
}

Float4 multiply(int which, Float4 c) {
    auto const& col = constants().columns[which];
    return col[0] * splat<0>(c) + col[1] * splat<1>(c) + col[2] * splat<2>(c);
}

Float4 curveLanes(Float4 x) {
    // The fit is a ratio of two quadratics: defined for x >= 0 only (below, it
    // rises again toward white) and saturated to its limit 1/0.983729 long
    // before x^2 would overflow. Negative input takes the value at 0, input
    // beyond 2^60 the value there (the limit to float precision); NaN is 0.
    x = min(max(x, Float4(0.f)), Float4(AcesOtOperator::CURVE_INPUT_MAX));
    return (x * (x + Float4(0.0245786f)) - Float4(0.000090537f)) /
           (x * (Float4(0.983729f) * x + Float4(0.432951f)) + Float4(0.238081f));
}

// Scene value that the curve faded by opacity j/15 maps to display value i/15.
// The reference values of the shipped transform, kept as data.
StaticArray<float, 256> const UNMAPPING_TABLE = {
    0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f,  // v = 0/15
    1.f / 15.f, 0.069642f, 0.072797f, 0.076135f, 0.07966f, 0.083376f, 0.087283f, 0.091378f, 0.095659f, 0.10012f, 0.10475f, 0.10954f, 0.11449f, 0.11958f, 0.1248f, 0.13013f,  // v = 1/15
    2.f / 15.f, 0.13767f, 0.14212f, 0.14668f, 0.15134f, 0.1561f, 0.16097f, 0.16592f, 0.17096f, 0.17608f, 0.18128f, 0.18656f, 0.19192f, 0.19735f, 0.20284f, 0.20841f,  // v = 2/15
    3.f / 15.f, 0.20498f, 0.21003f, 0.21516f, 0.22035f, 0.22562f, 0.23096f, 0.23637f, 0.24186f, 0.24743f, 0.25307f, 0.2588f, 0.26462f, 0.27054f, 0.27656f, 0.2827f,  // v = 3/15
    4.f / 15.f, 0.2721f, 0.27762f, 0.28322f, 0.2889f, 0.29468f, 0.30056f, 0.30655f, 0.31266f, 0.31889f, 0.32526f, 0.33178f, 0.33847f, 0.34534f, 0.35242f, 0.35972f,  // v = 4/15
    5.f / 15.f, 0.33933f, 0.34544f, 0.35168f, 0.35808f, 0.36463f, 0.37135f, 0.37826f, 0.38538f, 0.39273f, 0.40035f, 0.40825f, 0.41648f, 0.42508f, 0.4341f, 0.44361f,  // v = 5/15
    6.f / 15.f, 0.40679f, 0.41378f, 0.42099f, 0.42844f, 0.43615f, 0.44416f, 0.45251f, 0.46123f, 0.47036f, 0.47998f, 0.49014f, 0.50094f, 0.51249f, 0.52491f, 0.53839f,  // v = 6/15
    7.f / 15.f, 0.47456f, 0.48277f, 0.49132f, 0.50026f, 0.50963f, 0.51949f, 0.5299f, 0.54095f, 0.55273f, 0.56538f, 0.57904f, 0.59392f, 0.61029f, 0.62853f, 0.64916f,  // v = 7/15
    8.f / 15.f, 0.54266f, 0.55245f, 0.56275f, 0.57365f, 0.58521f, 0.59754f, 0.61076f, 0.62502f, 0.64052f, 0.65751f, 0.67633f, 0.69744f, 0.7215f, 0.74953f, 0.78312f,  // v = 8/15
    9.f / 15.f, 0.61107f, 0.6228f, 0.63527f, 0.6486f, 0.66291f, 0.67839f, 0.69522f, 0.71369f, 0.73416f, 0.75711f, 0.78322f, 0.8135f, 0.84951f, 0.89389f, 0.9516f,  // v = 9/15
    10.f / 15.f, 0.67977f, 0.69378f, 0.70881f, 0.72505f, 0.74268f, 0.76197f, 0.78327f, 0.80703f, 0.83386f, 0.86465f, 0.90068f, 0.944f, 0.99808f, 1.0696f, 1.1738f,  // v = 10/15
    11.f / 15.f, 0.74875f, 0.76534f, 0.78331f, 0.80289f, 0.82438f, 0.84817f, 0.87479f, 0.90495f, 0.93964f, 0.98036f, 1.0294f, 1.0906f, 1.1712f, 1.2869f, 1.4859f,  // v = 11/15
    12.f / 15.f, 0.81796f, 0.83743f, 0.85868f, 0.88201f, 0.90787f, 0.93681f, 0.96958f, 1.0072f, 1.0513f, 1.1042f, 1.1696f, 1.2544f, 1.3725f, 1.5591f, 1.9647f,  // v = 12/15
    13.f / 15.f, 0.88739f, 0.90999f, 0.93481f, 0.96229f, 0.99299f, 1.0277f, 1.0674f, 1.1137f, 1.1687f, 1.2359f, 1.3214f, 1.4362f, 1.605f, 1.9008f, 2.8103f,  // v = 13/15
    14.f / 15.f, 0.95701f, 0.98297f, 1.0116f, 1.0436f, 1.0796f, 1.1206f, 1.168f, 1.2238f, 1.2912f, 1.3751f, 1.4842f, 1.6356f, 1.8702f, 2.3256f, 4.7571f,  // v = 14/15
    15.f / 15.f, 1.0268f, 1.0563f, 1.0891f, 1.1258f, 1.1675f, 1.2153f, 1.2711f, 1.3375f, 1.4186f, 1.5211f, 1.6573f, 1.852f, 2.1679f, 2.8419f, 14.483f,  // v = 15/15
};

} // namespace

Matrix33 const& AcesOtOperator::inputMatrix() { return constants().input; }
Matrix33 const& AcesOtOperator::outputMatrix() { return constants().output; }
Matrix33 const& AcesOtOperator::inverseInputMatrix() { return constants().inverseInput; }
Matrix33 const& AcesOtOperator::inverseOutputMatrix() { return constants().inverseOutput; }
StaticArray<float, 256> const& AcesOtOperator::unmappingTable() { return UNMAPPING_TABLE; }
float AcesOtOperator::curve(float x) { return curveLanes(Float4(x)).x(); }

SharedPtr<DataObjectDefinition const> const& AcesOtOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addFloat("opacity", 1.f, "Opacity",
                   "Blends the transformed colour with the original one: 1.0 applies the full transform, 0.0 none.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        return b.build("Zatho.AcesOtOperator");
    }();
    return def;
}

AcesOtOperator::AcesOtOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::FinalLook) {
    setNeutral(false);  // active at full opacity until prepared otherwise
}

SharedPtr<Entity> AcesOtOperator::createNewInstance() const { return makeSharedPtr<AcesOtOperator>(); }

void AcesOtOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    mActive = isActive(context);
    mOpacity = get<float>("opacity");
    setNeutral(!mActive || mOpacity == 0.f);
}

Float4 AcesOtOperator::mapLanes(Float4 c) const {
    if (!mActive) return c;
    Float4 const a = curveLanes(multiply(INPUT, c));
    Float4 const b = min(max(multiply(OUTPUT, a), Float4(0.f)), Float4(1.f));
    // Unfaded, the input's share is none at all: 0 times an infinity is no share.
    if (mOpacity == 1.f) return b;
    return Float4(mOpacity) * b + Float4(1.f - mOpacity) * c;
}

void AcesOtOperator::mapPlanes(Float4& r, Float4& g, Float4& b) const {
    if (!mActive) return;
    auto const& cols = constants().columns;
    // Row i of a matrix from its column lanes, multiplied in the order of
    // multiply() so planes and single colours give the same bits.
    auto apply = [&](int which, Float4 x, Float4 y, Float4 z, Float4 out[3]) {
        for (int i = 0; i < 3; ++i)
            out[i] = Float4(cols[which][0][i]) * x + Float4(cols[which][1][i]) * y + Float4(cols[which][2][i]) * z;
    };
    Float4 a[3], o[3];
    apply(INPUT, r, g, b, a);
    for (Float4& v : a) v = curveLanes(v);
    apply(OUTPUT, a[0], a[1], a[2], o);
    Float4 const keep(1.f - mOpacity), take(mOpacity);
    Float4* planes[3] = {&r, &g, &b};
    for (int i = 0; i < 3; ++i) {
        Float4 const clamped = min(max(o[i], Float4(0.f)), Float4(1.f));
        *planes[i] = mOpacity == 1.f ? clamped : take * clamped + keep * *planes[i];
    }
}

Rgb AcesOtOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (!mActive || exclude.has(ColorMappingExclude::AcesOt)) return color;
    if (mOpacity != 1.f) {
        // Channel by channel through the table, bilinear in value and opacity.
        // The channels are not mixed here: the announced imprecision.
        auto const& t = UNMAPPING_TABLE;
        float const sj = mOpacity * 15.f;
        int const j0 = int(sj), j1 = std::min(j0 + 1, 15);
        float const fj = sj - float(j0);
        Rgb out;
        for (int ch = 0; ch < 3; ++ch) {
            float const u = std::clamp(color[ch], 0.f, 1.f) * 15.f;
            int const i0 = int(u), i1 = std::min(i0 + 1, 15);
            float const fi = u - float(i0);
            out[ch] = (1.f - fi) * ((1.f - fj) * t[i0 * 16 + j0] + fj * t[i0 * 16 + j1]) +
                      fi * ((1.f - fj) * t[i1 * 16 + j0] + fj * t[i1 * 16 + j1]);
        }
        return out;
    }
    Float4 const c = min(max(toFloat4(color), Float4(0.f)), Float4(1.f));
    Float4 const a = multiply(INVERSE_OUTPUT, c);
    // The inverse branch of the curve; its denominator vanishes only at 1.0165402.
    Float4 const d = Float4(1.0165402f) - a;
    Float4 const x = Float4(0.03162277f) *
                         sqrt(((Float4(240.43175f) - Float4(193.59424f) * a) * a + Float4(0.24962097f)) / (d * d)) +
                     (Float4(-0.22005603f) - Float4(0.2112032f) / (a - Float4(1.0165402f)));
    return toRgb(max(multiply(INVERSE_INPUT, x), Float4(0.f)));
}

void AcesOtOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    using Kind = ColorProgramBuilder::Kind;
    if (mOpacity == 1.f) {
        // Unfaded, the transform is matrix, curve, matrix, clamp: the input
        // matrix can join the affine operators before it.
        builder.appendAffine(inputMatrix());
        ColorProgramBuilder::Step curve;
        curve.kind = Kind::AcesCurve;
        builder.append(curve);
        builder.appendAffine(outputMatrix());
        ColorProgramBuilder::Step clamp;
        clamp.kind = Kind::Clamp;
        clamp.p[0] = 0.f;
        clamp.p[1] = 1.f;
        builder.append(clamp);
        return;
    }
    ColorProgramBuilder::Step blend;
    blend.kind = Kind::AcesBlend;
    blend.p[0] = mOpacity;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            blend.p[1 + 3 * i + j] = inputMatrix().m[i][j];
            blend.p[10 + 3 * i + j] = outputMatrix().m[i][j];
        }
    builder.append(blend);
}

FERRIM_REGISTER_COLOR_OPERATOR(AcesOtOperator, "ACES Output Transform");

} // namespace Quelin
