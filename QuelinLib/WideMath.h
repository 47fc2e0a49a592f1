#pragma once
// Fast log2, exp2 and pow for any of the lane types (Float4, the types of
// Wide.h). One template serves every width, so the four-lane colour maths of
// ColorMath.h and the wide colour programs compute the same thing; they
// differ only where a width fuses a multiply-add (FMA), by a few units in the
// last place.
//
// Accuracy against std::log2 / std::exp2 / std::pow on normal floats:
// log2 absolute error < 5e-8 (atanh series around the centred mantissa),
// exp2 relative error < 1.3e-7 (degree-6 Taylor on [-0.5, 0.5]), pow relative
// error < 1e-5 wherever |e * log2 x| < 64 and the result is a normal float.
#include <cfloat>
#include <cstdint>

namespace Quelin::WideMath {

/// log2 m for a mantissa m in [0.707, 1.414), from t = (m - 1) / (m + 1):
/// 2/ln2 * atanh(t) to the t^7 term. Any lane type, plain float included.
template <typename F> inline F log2AtanhSeries(F t) {
    F const t2 = t * t;
    constexpr float C1 = 2.8853900817779268f;  // 2 / ln 2
    F p = F(C1 / 7.f);
    p = p * t2 + F(C1 / 5.f);
    p = p * t2 + F(C1 / 3.f);
    p = p * t2 + F(C1);
    return p * t;
}

/// log2 of positive normal floats.
template <typename F> inline F log2Approx(F x) {
    auto const bits = bitsToInt(x);
    F exponent = convertToFloat((bits.shiftRight(23) & decltype(bits)(0xFF)) - decltype(bits)(127));
    F m = bitsToFloat((bits & decltype(bits)(0x007FFFFF)) | decltype(bits)(0x3F800000));  // [1, 2)
    // Centre the mantissa on 1 ([0.707, 1.414)) so the series converges fast.
    auto const high = m > F(1.41421356f);
    m = select(high, m * F(0.5f), m);
    exponent = exponent + select(high, F(1.f), F(0.f));
    // log2 m = 2/ln2 * atanh(t), t = (m - 1) / (m + 1), |t| <= 0.1716, with a
    // reciprocal estimate and one Newton step (about 23 bits) for the division.
    F const den = m + F(1.f);
    F r = rcpApprox(den);
    r = r * (F(2.f) - den * r);
    return exponent + log2AtanhSeries((m - F(1.f)) * r);
}

/// 2^y; y is clamped to [-126, 127.4].
template <typename F> inline F exp2Approx(F y) {
    y = min(max(y, F(-126.f)), F(127.4f));
    F const n = floor(y + F(0.5f));
    F const u = (y - n) * F(0.69314718f);  // |u| <= ln2 / 2
    // e^u, Taylor to degree 6.
    F p = F(1.f / 720.f);
    p = p * u + F(1.f / 120.f);
    p = p * u + F(1.f / 24.f);
    p = p * u + F(1.f / 6.f);
    p = p * u + F(0.5f);
    p = p * u + F(1.f);
    p = p * u + F(1.f);
    auto const n32 = truncateToInt(n);
    F const scale = bitsToFloat((n32 + decltype(n32)(127)).shiftLeft(23));
    return p * scale;
}

/// x^e; bases at or below the smallest normal float (zero, negatives,
/// denormals) give 0; results beyond 2^127 saturate there.
template <typename F> inline F powApprox(F x, F e) {
    auto const valid = x > F(FLT_MIN);
    F const r = exp2Approx(e * log2Approx(max(x, F(FLT_MIN))));
    return select(valid, r, F(0.f));
}

} // namespace Quelin::WideMath
