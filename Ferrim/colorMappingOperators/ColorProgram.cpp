#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Quelin {

namespace {

using ColorKernels::StepKind;

constexpr int CHUNK = ColorKernels::CHUNK_PIXELS;

ColorKernels::Table const* kernelsFor(WideIsa isa) {
    switch (isa) {
    case WideIsa::Avx512: return ColorKernels::avx512Kernels();
    case WideIsa::Avx2: return ColorKernels::avx2Kernels();
    case WideIsa::Sse41: return ColorKernels::sse41Kernels();
    case WideIsa::Scalar: return ColorKernels::scalarKernels();
    }
    return ColorKernels::scalarKernels();
}

using Affine = double[3][4];

/// Whether b after a can be one matrix within float rounding of the two:
/// each entry of the product must not come from cancelling larger terms
/// (then the chained form's rounding would be far above the folded one's),
/// and no intermediate value may leave the range the chained form keeps.
bool canFold(Affine const& a, Affine const& b) {
    for (int i = 0; i < 3; ++i) {
        double rowScale = 0.0;
        double sums[4], products[4];
        for (int j = 0; j < 4; ++j) {
            double s = 0.0, p = j == 3 ? b[i][3] : 0.0;
            for (int k = 0; k < 3; ++k) {
                s += std::abs(b[i][k] * a[k][j]);
                p += b[i][k] * a[k][j];
            }
            if (j == 3) s += std::abs(b[i][3]);
            sums[j] = s, products[j] = p;
            rowScale = std::max(rowScale, s);
        }
        for (int j = 0; j < 4; ++j)
            if (sums[j] > 4.0 * std::abs(products[j]) + 1e-7 * rowScale) return false;
    }
    for (Affine const* m : {&a, &b})
        for (auto const& row : *m)
            for (double v : row)
                if (std::abs(v) > 1e30) return false;
    return true;
}

void multiply(Affine const& a, Affine const& b, Affine& out) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
            double s = j == 3 ? b[i][3] : 0.0;
            for (int k = 0; k < 3; ++k) s += b[i][k] * a[k][j];
            out[i][j] = s;
        }
}

bool isIdentityMatrix(Affine const& m) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j)
            if (m[i][j] != (i == j ? 1.0 : 0.0)) return false;
    return true;
}

bool isDiagonal(Affine const& m) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j)
            if (i != j && m[i][j] != 0.0) return false;
    return true;
}

char const* kindName(StepKind kind) {
    switch (kind) {
    case StepKind::Scale: return "scale";
    case StepKind::Affine: return "affine";
    case StepKind::Clamp: return "clamp";
    case StepKind::Pow: return "pow";
    case StepKind::SignedPow: return "signed pow";
    case StepKind::PowFixed: return "pow";
    case StepKind::PowUnit: return "pow";
    case StepKind::PowLinear: return "pow linear";
    case StepKind::AcesCurve: return "aces curve";
    case StepKind::AcesTone: return "aces";
    case StepKind::AcesBlend: return "aces blend";
    case StepKind::Reinhard: return "reinhard";
    case StepKind::Filmic: return "filmic";
    case StepKind::Contrast: return "contrast";
    case StepKind::Saturation: return "saturation";
    case StepKind::Vignette: return "vignette";
    case StepKind::AdvancedFilmic: return "advanced filmic";
    case StepKind::Curves: return "curves";
    case StepKind::ToneCurve: return "tone curve";
    case StepKind::Lut: return "lut";
    case StepKind::PbrOffset: return "pbr neutral offset";
    case StepKind::PbrNeutral: return "pbr neutral";
    case StepKind::Agx: return "agx";
    case StepKind::Callback: return "callback";
    case StepKind::Count: break;
    }
    return "?";
}

/// The monomial coefficients, in powers of t, of the polynomial of degree
/// N - 1 that interpolates (centre + t)^e at the Chebyshev nodes of
/// [-halfWidth, halfWidth], solved in double precision.
template <int N> StaticArray<double, N> chebyshevPowerFit(double centre, double halfWidth, double e) {
    double a[N][N + 1];
    for (int i = 0; i < N; ++i) {
        double const x = halfWidth * std::cos(3.14159265358979323846 * (2.0 * i + 1.0) / (2.0 * N));
        double power = 1.0;
        for (int j = 0; j < N; ++j, power *= x) a[i][j] = power;
        a[i][N] = std::pow(centre + x, e);
    }
    for (int col = 0; col < N; ++col) {  // Gauss-Jordan with partial pivoting
        int pivot = col;
        for (int row = col + 1; row < N; ++row)
            if (std::abs(a[row][col]) > std::abs(a[pivot][col])) pivot = row;
        std::swap(a[col], a[pivot]);
        for (int row = 0; row < N; ++row) {
            if (row == col) continue;
            double const f = a[row][col] / a[col][col];
            for (int k = col; k <= N; ++k) a[row][k] -= f * a[col][k];
        }
    }
    StaticArray<double, N> c;
    for (int j = 0; j < N; ++j) c[std::size_t(j)] = a[j][N] / a[j][j];
    return c;
}

/// The tables of a PowFixed step for x^e (see ColorProgramKernels.h): the
/// mantissa polynomial interpolates (1.5 + t)^e at the Chebyshev nodes of
/// [-0.5, 0.5], solved for its monomial coefficients in double precision.
/// Empty when the polynomial would miss by more than 1e-7 (exponents far
/// from the display range): the general pow serves those.
SharedPtr<StaticArray<float, ColorKernels::POW_TABLE_SIZE> const> powerTables(double e) {
    constexpr int N = ColorKernels::POW_DEGREE + 1;
    StaticArray<double, N> const c = chebyshevPowerFit<N>(1.5, 0.5, e);
    for (int i = 0; i <= 1000; ++i) {
        double const t = -0.5 + i / 1000.0;
        double p = 0.0;
        for (int j = N - 1; j >= 0; --j) p = p * t + c[std::size_t(j)];
        if (!(std::abs(p / std::pow(1.5 + t, e) - 1.0) <= 1e-7)) return {};
    }
    auto tables = makeSharedPtr<StaticArray<float, ColorKernels::POW_TABLE_SIZE>>();
    auto& t = *tables;
    t.fill(0.f);
    for (int q = 0; q < 32; ++q) t[std::size_t(q)] = float(std::exp2(double(8 * q - 127) * e));
    for (int r = 0; r < 8; ++r) t[std::size_t(32 + r)] = float(std::exp2(double(r) * e));
    for (int j = 0; j < N; ++j) std::fill_n(t.begin() + 48 + 16 * j, 16, float(c[std::size_t(j)]));
    return tables;
}

/// The tables of a PowUnit step for x^e on [0, 1] (see UnitPower.h), and
/// their mode (narrow for exponents of at least 1.5; floored where the
/// lowest row can be 0 within 3e-7 of the power). Each quarter's cubic
/// interpolates (centre + u)^e at the Chebyshev nodes of [-1/8, 1/8] (the
/// display exponents 1/2.6 to 1/1.8 and 2.2 within 1.1e-6, 8e-7 of 1). Empty
/// where a cubic misses by more than 1.5e-6 of the result, or where the 0
/// given below 2^-63 would miss by more than 2e-7 (exponents below about 0.38).
SharedPtr<StaticArray<float, ColorKernels::UNIT_POW_TABLE_SIZE> const> unitPowerTables(double e, int& mode) {
    constexpr int N = ColorKernels::UNIT_POW_DEGREE + 1;
    if (!(e > 0.0 && e <= 4.0) || std::exp2(-63.0 * e) > 2e-7) return {};
    mode = e >= 1.5 ? ColorKernels::UNIT_POW_NARROW : 0;
    // The lowest row: A[0] (biased exponents 64 to 79) or, narrow, B[0] (112 to 115).
    if (std::exp2((mode ? -11.0 : -48.0) * e) <= 3e-7) mode |= ColorKernels::UNIT_POW_FLOORED;
    auto tables = makeSharedPtr<StaticArray<float, ColorKernels::UNIT_POW_TABLE_SIZE>>();
    auto& t = *tables;
    for (int i = 0; i < 4; ++i) {
        // A by bits 4-5 of the biased exponent 64..127, B by bits 2-3, C by bits 0-1.
        // A row below what a float holds well gives 0: its powers are below 2^-60.
        double const a = std::exp2((64.0 + 16.0 * i - 127.0) * e);
        t[std::size_t(i)] = a < 0x1p-100 ? 0.f : float(a);
        t[std::size_t(4 + i)] = float(std::exp2(4.0 * i * e));
        t[std::size_t(8 + i)] = float(std::exp2(double(i) * e));
    }
    if (mode & ColorKernels::UNIT_POW_FLOORED) t[(mode & ColorKernels::UNIT_POW_NARROW) ? 4 : 0] = 0.f;
    for (int quarter = 0; quarter < 4; ++quarter) {
        double const centre = 1.0 + quarter / 4.0 + 1.0 / 8.0;
        StaticArray<double, N> const c = chebyshevPowerFit<N>(centre, 0.125, e);
        for (int j = 0; j < N; ++j) t[std::size_t(12 + 4 * j + quarter)] = float(c[std::size_t(j)]);
        // The float coefficients, checked over the quarter.
        for (int i = 0; i <= 200; ++i) {
            double const u = -0.125 + i / 800.0;
            double p = 0.0;
            for (int j = N - 1; j >= 0; --j) p = p * u + double(t[std::size_t(12 + 4 * j + quarter)]);
            if (!(std::abs(p / std::pow(centre + u, e) - 1.0) <= 1.5e-6)) return {};
        }
    }
    // 1 must map to 1 exactly (display white): the kernel takes the smaller of
    // its result and 1, so C[3] (the row of 1's exponent) is raised by ulps
    // until the result for 1 is at least 1, with and without fused
    // multiply-adds (the widths differ there).
    auto atOne = [&](bool fused) {
        float p = t[12 + 4 * (N - 1)];
        for (int j = N - 2; j >= 0; --j) {
            volatile float product = p * -0.125f;  // not contracted into a fused multiply-add
            p = fused ? std::fma(p, -0.125f, t[std::size_t(12 + 4 * j)]) : product + t[std::size_t(12 + 4 * j)];
        }
        return p * (t[3] * t[7] * t[11]);
    };
    for (int i = 0; i < 8 && std::min(atOne(true), atOne(false)) < 1.f; ++i) t[11] = std::nextafter(t[11], 2.f * t[11]);
    if (std::min(atOne(true), atOne(false)) < 1.f) return {};
    return tables;
}

/// Whether a step leaves every finite value within [0, 1].
bool boundsToUnit(ColorKernels::Step const& s) {
    switch (s.kind) {
    case StepKind::AcesTone: return s.p[12] >= 0.f && s.p[13] <= 1.f;
    case StepKind::Clamp: return s.p[0] >= 0.f && s.p[1] <= 1.f;
    case StepKind::PowUnit:
    case StepKind::PbrNeutral: return true;  // its offset bounded the input first
    default: return false;
    }
}

bool finite(Rgb const& c) { return std::isfinite(c.r) && std::isfinite(c.g) && std::isfinite(c.b); }

} // namespace

// ---------------------------------------------------------------- builder

void ColorProgramBuilder::appendAffine(Matrix33 const& m, Rgb const& offset) {
    Entry e;
    e.affine = true;
    e.step.kind = Kind::Affine;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) e.matrix[i][j] = m.m[i][j];
        e.matrix[i][3] = offset[i];
    }
    mEntries.push_back(std::move(e));
}

void ColorProgramBuilder::append(Step const& step, SharedPtr<void const> keepAlive) {
    Entry e;
    e.step = step;
    e.keepAlive = std::move(keepAlive);
    mEntries.push_back(std::move(e));
}

void ColorProgramBuilder::appendCallback(void (*callback)(void const*, float*, int, int), void const* owner) {
    Step s;
    s.kind = Kind::Callback;
    s.callback = callback;
    s.owner = owner;
    append(s);
}

void ColorProgramBuilder::appendPlanesCallback(void (*callback)(void const*, float*, float*, float*, int),
                                               void const* owner) {
    Step s;
    s.kind = Kind::Callback;
    s.planesCallback = callback;
    s.owner = owner;
    append(s);
}

void ColorProgramBuilder::appendPlanesCallback(void (*callback)(void const*, float*, float*, float*, int),
                                               void (*packed)(void const*, float*, int, std::size_t), void const* owner) {
    appendPlanesCallback(callback, owner);
    mEntries.back().step.packedCallback = packed;
}

namespace {
void runPlanesCallback(ColorKernels::Step const& step, ColorKernels::Planes const& planes) {
    step.planesCallback(step.owner, planes.r, planes.g, planes.b, planes.count);
}
} // namespace

// ---------------------------------------------------------------- the operators' default

void UnaryColorMappingOperator::mapOneForProgram(void const* self, float* rgb, int x, int y) {
    Rgb const c = static_cast<UnaryColorMappingOperator const*>(self)->mapImpl(Rgb(rgb[0], rgb[1], rgb[2]), Pixel(x, y));
    rgb[0] = c.r, rgb[1] = c.g, rgb[2] = c.b;
}

void UnaryColorMappingOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendCallback(&mapOneForProgram, this);
}

// ---------------------------------------------------------------- program

ColorProgram ColorProgram::compile(EntityHolder<IColorMappingOperator> const& last, WideIsa isa) {
    ColorProgram program;
    program.mChain = last;
    if (!isWideIsaSupported(isa)) isa = bestWideIsa();
    // A build without the wider kernels (another compiler or processor family)
    // steps down to the next width it has.
    while (!kernelsFor(isa) && isa != WideIsa::Scalar) isa = WideIsa(int(isa) - 1);
    program.mIsa = isa;
    program.mKernels = kernelsFor(isa);

    // The chain from first to last.
    Stack<UnaryColorMappingOperator const*> chain;
    for (IColorMappingOperator const* op = last.get(); op; op = op->getPredecessor().get()) {
        auto const* unary = dynamic_cast<UnaryColorMappingOperator const*>(op);
        if (!unary) throw Exception("ColorProgram: an operator of the chain is not a unary operator");
        chain.push_back(unary);
    }
    ColorProgramBuilder builder;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) (*it)->compileMapping(builder);

    // Fold runs of affine steps.
    Stack<ColorProgramBuilder::Entry> folded;
    for (auto& e : builder.mEntries) {
        if (e.affine && !folded.empty() && folded.back().affine && canFold(folded.back().matrix, e.matrix)) {
            Affine product;
            multiply(folded.back().matrix, e.matrix, product);
            std::copy(&product[0][0], &product[0][0] + 12, &folded.back().matrix[0][0]);
            continue;
        }
        folded.push_back(std::move(e));
    }
    // ACES curve, matrix, clamp: one step (the unfaded ACES transform after
    // its input matrix, which stays an affine step with whatever folded into it).
    for (std::size_t i = 0; i + 2 < folded.size(); ++i) {
        auto& curve = folded[i];
        if (!(curve.step.kind == StepKind::AcesCurve && !curve.affine && folded[i + 1].affine &&
              folded[i + 2].step.kind == StepKind::Clamp && !folded[i + 2].affine))
            continue;
        ColorProgramBuilder::Step tone;
        tone.kind = StepKind::AcesTone;
        Affine const& out = folded[i + 1].matrix;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) tone.p[3 * r + c] = float(out[r][c]);
            tone.p[9 + r] = float(out[r][3]);
        }
        tone.p[12] = folded[i + 2].step.p[0];
        tone.p[13] = folded[i + 2].step.p[1];
        curve.step = tone;
        folded.erase(folded.begin() + std::ptrdiff_t(i) + 1, folded.begin() + std::ptrdiff_t(i) + 3);
    }
    for (auto& e : folded) {
        if (!e.affine && e.step.kind == StepKind::Count) continue;  // a clamp a power before it took on
        if (e.affine) {
            if (isIdentityMatrix(e.matrix)) continue;
            if (isDiagonal(e.matrix)) {
                e.step.kind = StepKind::Scale;
                for (int i = 0; i < 3; ++i) e.step.p[i] = float(e.matrix[i][i]);
            } else {
                e.step.kind = StepKind::Affine;
                for (int i = 0; i < 3; ++i) {
                    for (int j = 0; j < 3; ++j) e.step.p[3 * i + j] = float(e.matrix[i][j]);
                    e.step.p[9 + i] = float(e.matrix[i][3]);
                }
            }
        }
        // One positive exponent for all three channels (the display
        // encodings): the power from tables made here.
        // Whether finite input now gives bounded values: a clamp, the ACES
        // pass (its curve input is bounded too) or PBR Neutral's compression
        // bounds them, and a power of at most 1 (or any power with a straight
        // segment after a bound) keeps them bounded. Then the result needs no
        // second look.
        bool const afterBound = !program.mSteps.empty() && boundsToUnit(program.mSteps.back().step);
        bool const lowPower = ((e.step.kind == StepKind::Pow || e.step.kind == StepKind::SignedPow) &&
                               std::all_of(e.step.p, e.step.p + 3, [](float x) { return x > 0.f && x <= 1.f; })) ||
                              (e.step.kind == StepKind::PowLinear && afterBound);
        if (e.step.kind == StepKind::AcesTone || e.step.kind == StepKind::PbrNeutral ||
            (e.step.kind == StepKind::Clamp && std::isfinite(e.step.p[0]) && std::isfinite(e.step.p[1])))
            program.mBoundedResult = true;
        else if (!lowPower)
            program.mBoundedResult = false;
        bool const power = e.step.kind == StepKind::Pow || e.step.kind == StepKind::SignedPow;
        bool const oneExponent = power && e.step.p[0] > 0.f && e.step.p[0] == e.step.p[1] && e.step.p[0] == e.step.p[2];
        // A power of values in [0, 1]: after a step that bounds them there,
        // or followed by a clamp to [0, 1] (the power is monotone and keeps 0
        // and 1, so clamping first is the same; the sign no longer matters).
        auto const next = std::next(&e);
        bool const beforeClamp = next != folded.data() + folded.size() && !next->affine &&
                                 next->step.kind == StepKind::Clamp && next->step.p[0] == 0.f && next->step.p[1] == 1.f;
        if (oneExponent && (afterBound || beforeClamp)) {
            int mode = 0;
            if (auto unit = unitPowerTables(double(e.step.p[0]), mode)) {
                // After the ACES pass, whose clamp from 0 never sees NaN (its
                // curve reads NaN as 0), that clamp raises small values to the
                // power's floor instead of the power: one step less.
                auto* before = afterBound ? &program.mSteps.back().step : nullptr;
                if ((mode & ColorKernels::UNIT_POW_FLOORED) && before && before->kind == StepKind::AcesTone &&
                    before->p[12] == 0.f) {
                    before->p[12] = ColorKernels::unitPowFloor(mode);
                    mode |= ColorKernels::UNIT_POW_RAISED;
                }
                e.step.kind = StepKind::PowUnit;
                e.step.p[1] = float(mode);
                e.step.p[0] = afterBound ? 0.f : 1.f;
                e.step.table[0] = unit->data();
                e.keepAlive = std::move(unit);
                program.mBoundedResult = true;
                if (beforeClamp) next->step.kind = StepKind::Count;  // done here: dropped below
            }
        }
        if (e.step.kind == StepKind::PowLinear) {
            if (auto tables = powerTables(double(e.step.p[0]))) {
                e.step.table[0] = tables->data();
                e.keepAlive = std::move(tables);
            }
        }
        auto tables = e.step.kind != StepKind::PowUnit && oneExponent ? powerTables(double(e.step.p[0])) : nullptr;
        if (tables) {
            e.step.p[0] = e.step.kind == StepKind::SignedPow ? 1.f : 0.f;
            e.step.kind = StepKind::PowFixed;
            e.step.table[0] = tables->data();
            e.keepAlive = std::move(tables);
        }
        bool const planesCallback = e.step.kind == StepKind::Callback && e.step.planesCallback;
        if (e.step.kind == StepKind::Vignette || (e.step.kind == StepKind::Callback && !planesCallback))
            program.mNeedsPixel = true;
        BoundStep bound;
        bound.step = e.step;
        bound.run = planesCallback ? &runPlanesCallback : program.mKernels->steps[int(e.step.kind)];
        bound.keepAlive = std::move(e.keepAlive);
        program.mSteps.push_back(std::move(bound));
    }
    program.mPacked = program.mSteps.size() == 1 && program.mSteps[0].step.packedCallback;
    // A leading matrix (or the like) is applied as the pixels are read: one pass less.
    program.mFirstOnLoad = !program.mSteps.empty() && ColorKernels::loadsStep(program.mSteps[0].step.kind);
    return program;
}

Stack<String> ColorProgram::describe() const {
    Stack<String> names;
    for (auto const& s : mSteps) names.push_back(kindName(s.step.kind));
    return names;
}

void ColorProgram::map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    static_assert(sizeof(Rgb) == 3 * sizeof(float), "Rgb buckets are read as packed floats");
    if (extent.x <= 0 || extent.y <= 0) return;
    std::size_t const n = std::min(pixels.size(), std::size_t(extent.x) * std::size_t(extent.y));
    mapFloats(reinterpret_cast<float*>(pixels.data()), 3, n, origin, extent);
}

void ColorProgram::map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    static_assert(sizeof(RgbAlpha) == 4 * sizeof(float), "RgbAlpha buckets are read as packed floats");
    if (extent.x <= 0 || extent.y <= 0) return;
    std::size_t const n = std::min(pixels.size(), std::size_t(extent.x) * std::size_t(extent.y));
    mapFloats(reinterpret_cast<float*>(pixels.data()), 4, n, origin, extent);
}

void ColorProgram::mapPacked(float* data, int stride, std::size_t count, Pixel origin, Pixel extent) const {
    // Pieces of 1024 pixels: OpenColorIO runs each of its operations over a
    // whole line of its own four-float buffer, which at this size (16 KB)
    // stays in the first-level cache; lines of 4096 pixels were 40 % slower.
    constexpr std::size_t PIECE = 1024;
    auto const& step = mSteps[0].step;
    std::size_t const width = std::size_t(extent.x);
    Stack<std::pair<std::size_t, Rgb>> nonFinite;
    float alpha[PIECE];
    for (std::size_t start = 0; start < count; start += PIECE) {
        std::size_t const n = std::min(PIECE, count - start);
        float* const piece = data + start * std::size_t(stride);
        // Non-finite input goes to the chain, as in mapFloats: its pixels are
        // kept before the piece is mapped (any lane of all ones in the exponent).
        std::uint32_t all = 0;
        for (std::size_t i = 0; i < n * std::size_t(stride); ++i) {
            std::uint32_t bits;
            std::memcpy(&bits, piece + i, sizeof bits);
            all |= (bits & 0x7F800000u) == 0x7F800000u ? 1u : 0u;
        }
        nonFinite.clear();
        if (all)
            for (std::size_t k = 0; k < n; ++k) {
                float const* p = piece + k * std::size_t(stride);
                if (Rgb const in(p[0], p[1], p[2]); !finite(in)) nonFinite.emplace_back(k, in);
            }
        // Alpha stays as it was, bit for bit (the other library may round it).
        if (stride == 4)
            for (std::size_t k = 0; k < n; ++k) alpha[k] = piece[4 * k + 3];
        step.packedCallback(step.owner, piece, stride, n);
        if (stride == 4)
            for (std::size_t k = 0; k < n; ++k) piece[4 * k + 3] = alpha[k];
        for (auto const& [k, in] : nonFinite) {
            std::size_t const at = start + k;
            Pixel const pixel(origin.x + std::int32_t(at % width), origin.y + std::int32_t(at / width));
            Rgb const out = mChain ? mChain->map(in, pixel) : zeroNaN(in);
            float* p = piece + k * std::size_t(stride);
            p[0] = out.r, p[1] = out.g, p[2] = out.b;
        }
    }
}

void ColorProgram::mapFloats(float* data, int stride, std::size_t count, Pixel origin, Pixel extent) const {
    // An empty program still reads NaN as 0, as the chain does.
    if (!mKernels) return;
    if (mPacked) {
        mapPacked(data, stride, count, origin, extent);
        return;
    }
    alignas(64) float r[CHUNK], g[CHUNK], b[CHUNK], xs[CHUNK], ys[CHUNK];
    int const lanes = mKernels->lanes;
    std::size_t const width = std::size_t(extent.x);
    auto position = [&](std::size_t k) {
        return Pixel(origin.x + std::int32_t(k % width), origin.y + std::int32_t(k / width));
    };
    for (std::size_t start = 0; start < count; start += CHUNK) {
        int const n = int(std::min<std::size_t>(CHUNK, count - start));
        ColorKernels::Planes const planes{r, g, b, xs, ys, n, (n + lanes - 1) / lanes * lanes};
        float* const src = data + start * std::size_t(stride);
        bool suspicious = mKernels->load(src, stride, planes, mFirstOnLoad ? &mSteps[0].step : nullptr);
        if (mNeedsPixel) {
            Pixel p = position(start);
            for (int k = 0; k < planes.padded; ++k) {
                xs[k] = float(p.x), ys[k] = float(p.y);
                if (++p.x == origin.x + extent.x) p.x = origin.x, ++p.y;
            }
        }
        for (std::size_t i = mFirstOnLoad ? 1 : 0; i < mSteps.size(); ++i) mSteps[i].run(mSteps[i].step, planes);
        suspicious = suspicious || (!mBoundedResult && mKernels->anyNonFinite(planes));
        if (suspicious) {
            // Non-finite input or result: the chain itself decides, as it
            // always did for such values.
            for (int k = 0; k < n; ++k) {
                float const* p = src + std::size_t(k) * std::size_t(stride);
                Rgb const in(p[0], p[1], p[2]);
                if (finite(in) && finite(Rgb(r[k], g[k], b[k]))) continue;
                Rgb const out = mChain ? mChain->map(in, position(start + std::size_t(k))) : zeroNaN(in);
                r[k] = out.r, g[k] = out.g, b[k] = out.b;
            }
        }
        mKernels->store(planes, src, stride);
    }
}

} // namespace Quelin
