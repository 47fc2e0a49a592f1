#pragma once
// The interface between a compiled colour program and its kernels. Kernels are
// built once per instruction set (ColorProgramScalar/Sse41/Avx2/Avx512.cpp,
// each with its own compiler flags), so this header holds plain data only:
// nothing here may instantiate code that the wider builds would compile with
// instructions the baseline lacks.
#include <cstddef>
#include <cstdint>

namespace Quelin::ColorKernels {

/// What a step does to the three colour planes. Parameters `p` per kind:
enum class StepKind : int {
    Scale,           ///< c *= p[0..2]
    Affine,          ///< c = M c + t: rows of M in p[0..8], t in p[9..11]
    Clamp,           ///< min(p[1], max(p[0], c))
    Pow,             ///< max(c, 0)^p[0..2], the fast pow
    SignedPow,       ///< sign(c) |c|^p[0..2]
    PowFixed,        ///< Pow (p[0] == 0) or SignedPow (p[0] != 0) for one exponent, from the tables of table[0]
    PowLinear,       ///< select(c > p[5], p[3] (p[1] c + p[2])^p[0] + p[4], p[6] c), on |c| with the sign kept when p[7] != 0; the power from PowFixed tables table[0] when set
    PowUnit,         ///< x^e on [0, 1] from the tables of table[0] (UnitPower.h); clamped to [0, 1] first when p[0] != 0, mode p[1] (UNIT_POW_NARROW, UNIT_POW_FLOORED)
    AcesCurve,       ///< the ACES rational curve on each channel
    AcesTone,        ///< AcesCurve, Affine p[0..11], Clamp p[12..13] in one step (the input matrix is the affine step before it)
    AcesBlend,       ///< whole ACES output transform faded by p[0]: A in p[1..9], B in p[10..18]
    Reinhard,        ///< max(0, (p[0] c + 1) c / (c + 1))
    Filmic,          ///< H p[0], S p[1]
    Contrast,        ///< slope p[0], scale p[1], offset p[2], low p[3], high p[4], steepening p[5] != 0
    Saturation,      ///< offset p[0]
    Vignette,        ///< r0 p[0], K p[1], s p[2], centre p[3..4], offset p[5..6]
    AdvancedFilmic,  ///< contrast p[0], toe p[1], toe scale p[2], shoulder p[3], 1/white^2 p[4], desaturation p[5]
    Curves,          ///< per channel k: table[k], xMin p[5k], xMax p[5k+1], scale p[5k+2], slopes p[5k+3..4]; size ints[0]
    ToneCurve,       ///< table[0] as Curves' p[0..4], grey p[5], 1/grey p[6], preserve colour p[7] != 0; size ints[0]
    Lut,             ///< see LutStep below
    PbrOffset,       ///< Khronos PBR Neutral's bound and offset (DisplayTransformMath::pbrNeutralOffset)
    PbrNeutral,      ///< its highlight compression after PbrOffset (DisplayTransformMath::pbrNeutralCompress)
    Agx,             ///< AgX's log2 encoding and sigmoid on each channel (DisplayTransformMath::agxEncode)
    Callback,        ///< the operator's own single-colour mapping, pixel by pixel
    Count
};

/// Tables of a PowFixed step, for x = 2^(b - 127) m with biased exponent b
/// and mantissa m in [1, 2): x^e = A[b >> 3] B[b & 7] P(m - 1.5), A at
/// [0, 32), B at [32, 48) (padded), then the POW_DEGREE + 1 coefficients of P
/// (constant first), each repeated 16 times so that any width loads it as a
/// whole vector.
constexpr int POW_DEGREE = 7;
constexpr int POW_TABLE_SIZE = 48 + 16 * (POW_DEGREE + 1);

/// Tables of a PowUnit step (UnitPower.h): three exponent tables and
/// UNIT_POW_DEGREE + 1 coefficient rows, four floats each; inputs below
/// UNIT_POW_MIN map to 0.
constexpr int UNIT_POW_DEGREE = 3;
constexpr int UNIT_POW_TABLE_SIZE = 4 * (3 + UNIT_POW_DEGREE + 1);
constexpr float UNIT_POW_MIN = 1.f / 9223372036854775808.f;  // 2^-63
/// PowUnit modes (p[1]), bits: the narrow form; tables whose lowest row is 0;
/// with those, input that the step before raised to the floor already
/// (unitPowFloor), so that the power does not.
constexpr int UNIT_POW_NARROW = 1;
constexpr int UNIT_POW_FLOORED = 2;
constexpr int UNIT_POW_RAISED = 4;
/// The least input a floored PowUnit step of `mode` reads; below it, 0.
constexpr float unitPowFloor(int mode) { return (mode & UNIT_POW_NARROW) ? 1.f / 32768.f : UNIT_POW_MIN; }

/// Parameters of a Lut step: 3D table table[0] (size ints[0], four floats an
/// entry, red fastest), optional 1D shaper table[1] (size ints[1], three floats
/// an entry). p: 3D index scale [0..2] and offset [3..5], 1D scale [6..8] and
/// offset [9..11], encode exponent [12], decode exponent [13], opacity [14],
/// tetrahedral [15] != 0, apply in sRGB [16] != 0.
constexpr int PARAM_COUNT = 28;

struct Step {
    StepKind kind = StepKind::Callback;
    float p[PARAM_COUNT] = {};
    float const* table[3] = {nullptr, nullptr, nullptr};
    int ints[2] = {0, 0};
    /// Callback: maps rgb[0..2] in place for the pixel (x, y).
    void (*callback)(void const* owner, float* rgb, int x, int y) = nullptr;
    /// Callback with this set: maps a whole chunk's planes (count values each) at once.
    void (*planesCallback)(void const* owner, float* r, float* g, float* b, int count) = nullptr;
    /// Set beside planesCallback: the same mapping of packed pixels (`stride`
    /// floats each, any fourth passed through), for a program of this step alone.
    void (*packedCallback)(void const* owner, float* pixels, int stride, std::size_t count) = nullptr;
    void const* owner = nullptr;
};

/// Pixels per chunk: three planes of it (3 KiB) and the pixels stay in the
/// first-level cache while every step passes over them.
constexpr int CHUNK_PIXELS = 256;

/// One chunk of a bucket as colour planes. Planes hold `padded` floats (the
/// count rounded up to whole vectors; the padding is finite).
struct Planes {
    float* r;
    float* g;
    float* b;
    float const* x;  ///< pixel positions, filled when a step needs them
    float const* y;
    int count;
    int padded;
};

using StepFn = void (*)(Step const& step, Planes const& planes);

/// The kernels of one instruction set.
struct Table {
    int lanes;
    StepFn steps[int(StepKind::Count)];
    /// Packed pixels of `stride` floats (3: RGB, 4: RGB and alpha) into the
    /// planes, through the step `first` when it is not null (the program's
    /// first step, applied as the pixels are read; see loadsStep); true when
    /// some input channel is not finite.
    bool (*load)(float const* src, int stride, Planes const& planes, Step const* first);
    /// The planes back into the pixels; the fourth float of stride 4 is kept.
    void (*store)(Planes const& planes, float* dst, int stride);
    /// True when some plane value is not finite.
    bool (*anyNonFinite)(Planes const& planes);
};

/// Whether the kernels' load can apply a step of this kind: steps of the
/// three channels of one pixel with short chains, where the pass of their own
/// would cost more than the step itself.
constexpr bool loadsStep(StepKind kind) { return kind == StepKind::Affine || kind == StepKind::PbrOffset; }

/// Null where the build has no such kernels (another processor family).
/// Each ISA file defines its function with one of the two macros below.
Table const* scalarKernels();
Table const* sse41Kernels();
Table const* avx2Kernels();
Table const* avx512Kernels();

} // namespace Quelin::ColorKernels

/// Defines `function` as returning no kernels (the file was built without the
/// instruction set); the kernels themselves come from
/// FERRIM_DEFINE_COLOR_KERNELS in ColorProgramKernelsImpl.h.
#define FERRIM_NO_COLOR_KERNELS(function)                                                                              \
    namespace Quelin::ColorKernels {                                                                                  \
    Table const* function() { return nullptr; }                                                                       \
    }
