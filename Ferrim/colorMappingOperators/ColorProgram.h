#pragma once
// A prepared colour-mapping chain compiled into a flat program for mapping
// buckets: neutral operators left out, runs of operators that are affine in
// linear light folded into one matrix, and the remaining steps run one after
// the other over chunks of the bucket held as colour planes, with the widest
// vector kernels the processor has (chosen when the program is compiled). A
// leading matrix (or PBR Neutral's offset) is applied as the chunk is read.
//
// Accuracy against the operator-by-operator path (the chain's own `map`):
// each channel within 2e-6 of the larger of |value|, the input's largest
// channel and 1 (fused multiply-adds of the wide builds, folded matrices, the
// closed form of the saturation shift); 1e-5 for contrast (its curves amplify
// rounding near black and white) and for operators whose own mapping uses the
// exact std::pow, std::log2 or std::exp2 (LUT encoding, tone curve, advanced
// filmic), which get the fast ones here. The fast pow, log2 and exp2 are those
// of the four-lane path (QuelinLib/WideMath.h); a power of values known to be
// in [0, 1] (after the ACES transform, before a clamp to [0, 1]) comes from
// small tables instead (UnitPower.h, within 1.5e-6 of the exact power and 1 for
// 1), so the default pipeline stays within 2e-6 of single-colour mapping. A pixel whose input or result is not
// finite (NaN, infinity) is mapped again by the chain itself, so such values
// map as the chain maps them (a program that ends in a bounding step, such as
// the default one, checks the input only).
#include <span>

#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
#include "QuelinLib/WideIsa.h"

namespace Quelin {

/// What an operator appends to a program being compiled
/// (`UnaryColorMappingOperator::compileMapping`).
class FERRIM_EXPORT ColorProgramBuilder {
public:
    using Step = ColorKernels::Step;
    using Kind = ColorKernels::StepKind;

    /// c = m c + offset. Consecutive affine steps are folded where the folded
    /// matrix stays within float rounding of the chained ones.
    void appendAffine(Matrix33 const& m, Rgb const& offset = Rgb(0.f));
    /// c = c * factor, channel by channel.
    void appendScale(Rgb const& factor) { appendAffine(Matrix33(factor.r, 0, 0, 0, factor.g, 0, 0, 0, factor.b)); }
    /// Any other step; `keepAlive` owns the tables the step points to.
    void append(Step const& step, SharedPtr<void const> keepAlive = {});
    /// The operator's own single-colour mapping, pixel by pixel: the fallback
    /// for operators without a vector form.
    void appendCallback(void (*callback)(void const* owner, float* rgb, int x, int y), void const* owner);
    /// An operator's own mapping of whole planes (a chunk of `count` pixels):
    /// for operators that hand buckets to another library.
    void appendPlanesCallback(void (*callback)(void const* owner, float* r, float* g, float* b, int count),
                              void const* owner);
    /// As above, with the same mapping of packed pixels (`stride` floats
    /// each, a fourth passed through) for a program of this one step: the
    /// bucket goes to the other library as it is, in cache-sized pieces.
    void appendPlanesCallback(void (*callback)(void const* owner, float* r, float* g, float* b, int count),
                              void (*packed)(void const* owner, float* pixels, int stride, std::size_t count),
                              void const* owner);

private:
    friend class ColorProgram;
    struct Entry {
        Step step;
        SharedPtr<void const> keepAlive;
        // Affine steps stay in double until the program is finished.
        double matrix[3][4] = {};
        bool affine = false;
    };
    Stack<Entry> mEntries;
};

/// A compiled chain. Immutable once built; mapping is const and may run on
/// many threads at once. It refers to the chain it was compiled from (for
/// pixels that are not finite), so compile again after preparing the chain.
class FERRIM_EXPORT ColorProgram {
public:
    ColorProgram() = default;
    /// Compiles the prepared chain ending in `last` for `isa`, or the widest
    /// kernels the processor has when `isa` is wider than that.
    static ColorProgram compile(EntityHolder<IColorMappingOperator> const& last, WideIsa isa = bestWideIsa());

    /// Maps a bucket in place; layout as IColorMappingOperator::map.
    void map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const;
    /// As above; alpha is carried through untouched.
    void map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const;

    WideIsa getIsa() const { return mIsa; }
    /// The steps in order, by kind ("affine", "scale", "aces curve", ...), for
    /// inspection and tests.
    Stack<String> describe() const;
    bool isIdentity() const { return mSteps.empty(); }

private:
    void mapFloats(float* data, int stride, std::size_t count, Pixel origin, Pixel extent) const;
    void mapPacked(float* data, int stride, std::size_t count, Pixel origin, Pixel extent) const;

    struct BoundStep {
        ColorKernels::Step step;
        ColorKernels::StepFn run = nullptr;
        SharedPtr<void const> keepAlive;
    };
    Stack<BoundStep> mSteps;
    EntityHolder<IColorMappingOperator> mChain;
    ColorKernels::Table const* mKernels = nullptr;
    WideIsa mIsa = WideIsa::Scalar;
    bool mNeedsPixel = false;
    /// The program is one step that maps packed pixels itself.
    bool mPacked = false;
    /// The kernels' load applies the first step (ColorKernels::loadsStep).
    bool mFirstOnLoad = false;
    /// Finite input gives finite results (the program ends in a bounding
    /// step): only the input is checked for values the chain must map.
    bool mBoundedResult = false;
};

} // namespace Quelin
