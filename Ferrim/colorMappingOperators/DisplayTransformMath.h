#pragma once
// The per-pixel maths of the Khronos PBR Neutral and AgX display transforms,
// written once over any lane type (Float4 for the operators' own mapping, the
// types of QuelinLib/Wide.h for the compiled programs), on colour planes.
//
// Only the lane types, WideMath and plain C++ are used here, as in
// ColorProgramKernelsImpl.h, which includes this header for every width.
//
// Out-of-range input (see the README's table): NaN reaches these functions
// as 0 already; negative channels take the curves' value at 0; +inf and
// huge values reach the curves' limit (display white for PBR Neutral, the
// sigmoid's top for AgX). Results are clamped to [0, 1].
#include <cfloat>

#include "QuelinLib/WideMath.h"

namespace Quelin::DisplayTransformMath {

// ------------------------------------------------------------------ Khronos PBR Neutral
//
// "Khronos PBR Neutral Tone Mapper" (Khronos Group, ToneMapping
// repository, 2024): F90 = 0.04, Ks = 0.8 - F90,
// Kd = 0.15; f = x - x^2 / (4 F90) for x = min(R, G, B) <= 2 F90, else F90;
// p = max(c - f); p_n = 1 - (1 - Ks)^2 / (p + 1 - 2 Ks);
// g = 1 / (Kd (p - p_n) + 1); out = c - f for p <= Ks, else
// (c - f) p_n / p g + p_n (1 - g).

constexpr float PBR_F90 = 0.04f;
constexpr float PBR_KS = 0.8f - PBR_F90;
constexpr float PBR_KD = 0.15f;
constexpr float PBR_D = 1.f - PBR_KS;  ///< 1 - Ks
/// Input bound: there p_n and the blend are 1 to float precision, and no
/// product of the formula comes near overflowing.
constexpr float PBR_INPUT_MAX = 1152921504606846976.f;  // 2^60

/// The bounded input less the offset f (the first half of pbrNeutral).
template <typename F> inline void pbrNeutralOffset(F& r, F& g, F& b) {
    F const zero(0.f), top(PBR_INPUT_MAX);
    r = min(max(r, zero), top), g = min(max(g, zero), top), b = min(max(b, zero), top);
    F const x = min(r, min(g, b));
    F const offset = select(x < F(2.f * PBR_F90), x - F(1.f / (4.f * PBR_F90)) * x * x, F(PBR_F90));
    r = r - offset, g = g - offset, b = b - offset;
}

/// The highlight compression of offset colours (the second half).
template <typename F> inline void pbrNeutralCompress(F& r, F& g, F& b) {
    F const peak = max(r, max(g, b));
    F const newPeak = F(1.f) - F(PBR_D * PBR_D) / (peak + F(PBR_D - PBR_KS));
    // The published blend c p_n / p g + p_n (1 - g) with one division less:
    // p_n (1 + (c - p) g / p). With p at most 2^60, p / g is at most 2^118.
    F const t = F(1.f) / (peak * madd(F(PBR_KD), peak - newPeak, F(1.f)));
    auto compress = [&](F c) { return newPeak * madd(c - peak, t, F(1.f)); };
    auto const below = peak < F(PBR_KS);
    r = select(below, r, compress(r));
    g = select(below, g, compress(g));
    b = select(below, b, compress(b));
}

template <typename F> inline void pbrNeutral(F& r, F& g, F& b) {
    pbrNeutralOffset(r, g, b);
    pbrNeutralCompress(r, g, b);
}

/// The published analytical inverse, for display values in [0, 1]
/// (others clamped): display white unmaps to a large finite value.
template <typename F> inline void pbrNeutralInverse(F& r, F& g, F& b) {
    F const zero(0.f), one(1.f);
    r = min(max(r, zero), one), g = min(max(g, zero), one), b = min(max(b, zero), one);
    F const peakOut = min(max(r, max(g, b)), F(1.f - 1.f / 16777216.f));
    // p from p_n, then the blend undone and the scale with it.
    F const peak = F(PBR_D * PBR_D) / (one - peakOut) - F(PBR_D - PBR_KS);
    F const keep = one / madd(F(PBR_KD), peak - peakOut, one);  // g of the published formula
    F const w = one - keep;
    F const unscale = peak / (peakOut * keep);
    auto expand = [&](F c) { return (c - w * peakOut) * unscale; };
    auto const below = peakOut < F(PBR_KS);
    r = select(below, r, expand(r));
    g = select(below, g, expand(g));
    b = select(below, b, expand(b));
    // min(c - f) = x - f(x): 6.25 x^2 below 2 F90, else x - F90.
    F const m = max(min(r, min(g, b)), zero);
    F const x = F(2.f * 0.2f) * sqrt(m);  // sqrt(4 F90 m) = 0.4 sqrt(m)
    F const offset = select(m < F(PBR_F90), x - m, F(PBR_F90));
    r = r + offset, g = g + offset, b = b + offset;
}

// ------------------------------------------------------------------ AgX
//
// "Minimal AgX Implementation" (Benjamin Wrensch, iolite engine blog, 2023),
// from the values of Troy Sobotka's AgX configuration: the inset matrix
// (rows below; its inverse is the outset), the log2 encoding over
// [-12.47393, 4.026069] stops (log2 of 0.18 * 2^-10 and 0.18 * 2^6.5), the
// degree-6 fit of the default contrast sigmoid, and the 2.2 power back to
// linear. The result is clamped to [0, 1] for display.

constexpr float AGX_INSET[9] = {0.842479062253094f,  0.0784335999999992f, 0.0792237451477643f,
                                0.0423282422610123f, 0.878468636469772f,  0.0791661274605434f,
                                0.0423756549057051f, 0.0784336f,          0.879142973793104f};
constexpr float AGX_OUTSET[9] = {1.19687900512017f,    -0.0980208811401368f, -0.0990297440797205f,
                                 -0.0528968517574562f, 1.15190312990417f,    -0.0989611768448433f,
                                 -0.0529716355144438f, -0.0980434501171241f, 1.15107367264116f};
constexpr float AGX_MIN_EV = -12.47393f;
constexpr float AGX_MAX_EV = 4.026069f;
/// The sigmoid's coefficients, constant term first.
constexpr float AGX_SIGMOID[7] = {-0.00232f, 0.1191f, 0.4298f, -6.868f, 31.96f, -40.14f, 15.5f};
constexpr float AGX_GAMMA = 2.2f;

template <typename F> inline F agxSigmoid(F u) {
    F p(AGX_SIGMOID[6]);
    for (int k = 5; k >= 0; --k) p = madd(p, u, F(AGX_SIGMOID[k]));
    return p;
}

/// log2 of a positive normal float to 2.5e-6: the exponent plus a degree-6
/// polynomial in the mantissa (interpolating log2(1.5 + t) at the Chebyshev
/// nodes of [-0.5, 0.5]), constant term first. Enough here: the sigmoid's
/// steepest slope over the 16.5-stop encoding scales a log2 error by 0.15.
constexpr float AGX_LOG2[7] = {0.584962501f, 0.961820821f,  -0.320613035f, 0.141724736f,
                               -0.07079686f, 0.0439074798f, -0.0245685347f};

/// Inset matrix, log2 encoding and sigmoid of one channel's inset value:
/// 0, negative values and NaN take the bottom of the encoding, +inf its top.
/// The encoding's scale and offset are folded into the log2 polynomial:
/// u = (E - 127 + log2 m - MIN_EV) / range = E / range + Q(m - 1.5).
template <typename F> inline F agxLogEncode(F y) {
    constexpr float SCALE = 1.f / (AGX_MAX_EV - AGX_MIN_EV);
    // 2^AGX_MIN_EV: below it the encoding is clamped anyway. max keeps its
    // second operand for NaN; +inf has the largest exponent, so its u is far above 1.
    auto const bits = bitsToInt(max(y, F(0.000176776695f)));
    using I = decltype(bits);
    F const t = bitsToFloat((bits & I(0x007FFFFF)) | I(0x3F800000)) - F(1.5f);
    F q(AGX_LOG2[6] * SCALE);
    for (int k = 5; k >= 1; --k) q = madd(q, t, F(AGX_LOG2[k] * SCALE));
    q = madd(q, t, F((AGX_LOG2[0] - 127.f - AGX_MIN_EV) * SCALE));
    return madd(convertToFloat(bits.shiftRight(23)), F(SCALE), q);
}

template <typename F> inline F agxEncode(F y) { return agxSigmoid(min(max(agxLogEncode(y), F(0.f)), F(1.f))); }

/// `power(x)` is x^2.2 for x >= 0 (a fixed-exponent power where one is at hand).
template <typename F, typename Power> inline void agx(F& r, F& g, F& b, Power const& power) {
    auto const& m = AGX_INSET;
    F const x = agxEncode(madd(F(m[0]), r, madd(F(m[1]), g, F(m[2]) * b)));
    F const y = agxEncode(madd(F(m[3]), r, madd(F(m[4]), g, F(m[5]) * b)));
    F const z = agxEncode(madd(F(m[6]), r, madd(F(m[7]), g, F(m[8]) * b)));
    auto const& o = AGX_OUTSET;
    F const zero(0.f), one(1.f);
    auto out = [&](int row) {
        F const v = madd(F(o[3 * row]), x, madd(F(o[3 * row + 1]), y, F(o[3 * row + 2]) * z));
        return min(power(max(v, zero)), one);
    };
    r = out(0), g = out(1), b = out(2);
}

template <typename F> inline void agx(F& r, F& g, F& b) {
    agx(r, g, b, [](F v) { return WideMath::powApprox(v, F(AGX_GAMMA)); });
}

} // namespace Quelin::DisplayTransformMath
