#pragma once
// The kernels of a colour program, written once over the lane types of
// QuelinLib/Wide.h and compiled by each ColorProgram<Isa>.cpp for its own
// instruction set. Every step is a loop over whole vectors of the chunk's
// planes: the iterations are independent, so the processor overlaps them
// however long one step's dependency chain is.
//
// Only the lane types, WideMath and plain C++ are used here (see Wide.h on why).
//
// Non-finite values: clamps are written as max(lo, c) / min(hi, c), which keep
// a NaN, so a pixel that went wrong anywhere ends non-finite and the program
// hands it to the operator-by-operator path.
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
#include "Ferrim/colorMappingOperators/DisplayTransformMath.h"
#include "Ferrim/colorMappingOperators/UnitPower.h"
#include "QuelinLib/Wide.h"
#include "QuelinLib/WideMath.h"

namespace Quelin::ColorKernels {
namespace {

using F = Wide::Float;
using I = Wide::Int;
using M = Wide::Mask;
constexpr int L = F::LANES;

F clampKeepNaN(F x, F lo, F hi) { return min(hi, max(lo, x)); }

/// Runs `body(r, g, b)` over every vector of the planes, writing back.
template <typename Body> void forEachVector(Planes const& pl, Body const& body) {
    for (int i = 0; i < pl.padded; i += L) {
        F r = F::load(pl.r + i), g = F::load(pl.g + i), b = F::load(pl.b + i);
        body(r, g, b, i);
        r.store(pl.r + i);
        g.store(pl.g + i);
        b.store(pl.b + i);
    }
}

/// The same function on each channel, per channel parameters `p[0..2]` as F.
template <typename Fn> void perChannel(Planes const& pl, Fn const& fn) {
    float* planes[3] = {pl.r, pl.g, pl.b};
    for (int ch = 0; ch < 3; ++ch)
        for (int i = 0; i < pl.padded; i += L) fn(F::load(planes[ch] + i), ch).store(planes[ch] + i);
}

// ------------------------------------------------------------------ matrices

void scaleStep(Step const& s, Planes const& pl) {
    F const k[3] = {F(s.p[0]), F(s.p[1]), F(s.p[2])};
    perChannel(pl, [&](F c, int ch) { return c * k[ch]; });
}

/// c = m c + offset, m row by row in m[0..8], the offset in m[9..11].
void affine(F const* m, F& r, F& g, F& b) {
    F const nr = madd(m[0], r, madd(m[1], g, madd(m[2], b, m[9])));
    F const ng = madd(m[3], r, madd(m[4], g, madd(m[5], b, m[10])));
    F const nb = madd(m[6], r, madd(m[7], g, madd(m[8], b, m[11])));
    r = nr, g = ng, b = nb;
}

void affineStep(Step const& s, Planes const& pl) {
    F m[12];
    for (int i = 0; i < 12; ++i) m[i] = F(s.p[i]);
    forEachVector(pl, [&](F& r, F& g, F& b, int) { affine(m, r, g, b); });
}

void clampStep(Step const& s, Planes const& pl) {
    F const lo(s.p[0]), hi(s.p[1]);
    perChannel(pl, [&](F c, int) { return clampKeepNaN(c, lo, hi); });
}

// ------------------------------------------------------------------ powers

// The three channels in one iteration: three independent chains to overlap.
void powStep(Step const& s, Planes const& pl) {
    F const er(s.p[0]), eg(s.p[1]), eb(s.p[2]), zero(0.f);
    forEachVector(pl, [&](F& r, F& g, F& b, int) {
        r = WideMath::powApprox(max(zero, r), er);
        g = WideMath::powApprox(max(zero, g), eg);
        b = WideMath::powApprox(max(zero, b), eb);
    });
}

F signedPow(F c, F e) {
    F const p = WideMath::powApprox(abs(c), e);
    return select(c < F(0.f), -p, p);
}

/// x^e for one exponent fixed when the program was compiled: the exponent
/// part from two small tables, the mantissa part from a polynomial (relative
/// error about 1e-7, two thirds of the work of the general pow).
inline F powFixed(F x, float const* t) {
    M const valid = x > F(FLT_MIN);
    I const bits = bitsToInt(max(x, F(FLT_MIN)));
    I const biased = bits.shiftRight(23);
    F const m = bitsToFloat((bits & I(0x007FFFFF)) | I(0x3F800000)) - F(1.5f);
    F p = F::load(t + 48 + 16 * POW_DEGREE);
    for (int k = POW_DEGREE - 1; k >= 0; --k) p = madd(p, m, F::load(t + 48 + 16 * k));
    F const scale = lookup32(t, biased.shiftRight(3)) * lookup8(t + 32, biased & I(7));
    return select(valid, p * scale, F(0.f));
}

void powFixedStep(Step const& s, Planes const& pl) {
    float const* t = s.table[0];
    if (s.p[0] != 0.f) {
        auto signedPower = [&](F c) {
            F const p = powFixed(abs(c), t);
            return select(c < F(0.f), -p, p);
        };
        forEachVector(pl, [&](F& r, F& g, F& b, int) { r = signedPower(r), g = signedPower(g), b = signedPower(b); });
    } else {
        forEachVector(pl, [&](F& r, F& g, F& b, int) {
            r = powFixed(max(F(0.f), r), t), g = powFixed(max(F(0.f), g), t), b = powFixed(max(F(0.f), b), t);
        });
    }
}

/// A power with a straight segment below its threshold (the monitor curves
/// of colour-management configs), in either direction.
void powLinearStep(Step const& s, Planes const& pl) {
    float const* t = s.table[0];
    F const e(s.p[0]), a(s.p[1]), b(s.p[2]), c(s.p[3]), d(s.p[4]), threshold(s.p[5]), slope(s.p[6]), zero(0.f);
    auto curve = [&](F x, auto const& power) {
        return select(x > threshold, madd(power(max(madd(x, a, b), zero)), c, d), x * slope);
    };
    auto run = [&](auto const& power) {
        if (s.p[7] != 0.f)
            perChannel(pl, [&](F x, int) {
                F const y = curve(abs(x), power);
                return select(x < zero, -y, y);
            });
        else perChannel(pl, [&](F x, int) { return curve(x, power); });
    };
    if (t) run([&](F x) { return powFixed(x, t); });
    else run([&](F x) { return WideMath::powApprox(x, e); });
}

template <int MODE> void powUnitLoop(UnitPower const& power, bool clamp, Planes const& pl) {
    F const one(1.f);
    if (clamp && (MODE & UNIT_POW_FLOORED)) {
        // Clamped to the floor instead of 0: the power's own floor is this
        // clamp's (NaN to the floor, as there).
        F const floor(unitPowFloor(MODE));
        perChannel(pl, [&](F c, int) { return power.apply<MODE | UNIT_POW_RAISED>(min(max(c, floor), one)); });
    } else if (clamp) {
        perChannel(pl, [&](F c, int) { return power.apply<MODE>(clampKeepNaN(c, F(0.f), one)); });
    } else {
        perChannel(pl, [&](F c, int) { return power.apply<MODE>(c); });
    }
}

void powUnitStep(Step const& s, Planes const& pl) {
    UnitPower const power(s.table[0]);
    bool const clamp = s.p[0] != 0.f;
    constexpr int N = UNIT_POW_NARROW, FL = UNIT_POW_FLOORED, R = UNIT_POW_RAISED;
    switch (int(s.p[1])) {
    case 0: powUnitLoop<0>(power, clamp, pl); break;
    case N: powUnitLoop<N>(power, clamp, pl); break;
    case FL: powUnitLoop<FL>(power, clamp, pl); break;
    case N | FL: powUnitLoop<N | FL>(power, clamp, pl); break;
    case FL | R: powUnitLoop<FL | R>(power, false, pl); break;
    default: powUnitLoop<N | FL | R>(power, false, pl); break;
    }
}

void signedPowStep(Step const& s, Planes const& pl) {
    F const er(s.p[0]), eg(s.p[1]), eb(s.p[2]);
    forEachVector(pl, [&](F& r, F& g, F& b, int) { r = signedPow(r, er), g = signedPow(g, eg), b = signedPow(b, eb); });
}

// ------------------------------------------------------------------ ACES

/// Bounded as AcesOtOperator's curve: negative input (and NaN) as 0, input
/// beyond 2^60, where the curve has saturated, as 2^60.
F acesCurve(F x) {
    x = min(max(x, F(0.f)), F(1152921504606846976.f));
    return (x * (x + F(0.0245786f)) - F(0.000090537f)) / madd(x, madd(F(0.983729f), x, F(0.432951f)), F(0.238081f));
}

void acesCurveStep(Step const&, Planes const& pl) {
    perChannel(pl, [](F c, int) { return acesCurve(c); });
}

/// The unfaded transform after its input matrix (the affine step before it,
/// with whatever folded into it): curve, output matrix and clamp. The curve
/// has a pass of its own: the processor keeps only so many operations in
/// flight, and short chains let it overlap more vectors.
void acesToneStep(Step const& s, Planes const& pl) {
    F m[12];
    for (int i = 0; i < 12; ++i) m[i] = F(s.p[i]);
    F const lo(s.p[12]), hi(s.p[13]);
    perChannel(pl, [](F c, int) { return acesCurve(c); });
    forEachVector(pl, [&](F& r, F& g, F& b, int) {
        affine(m, r, g, b);
        r = clampKeepNaN(r, lo, hi), g = clampKeepNaN(g, lo, hi), b = clampKeepNaN(b, lo, hi);
    });
}

void acesBlendStep(Step const& s, Planes const& pl) {
    F a[9], bm[9];
    for (int i = 0; i < 9; ++i) a[i] = F(s.p[1 + i]), bm[i] = F(s.p[10 + i]);
    F const take(s.p[0]), keep(1.f - s.p[0]);
    forEachVector(pl, [&](F& r, F& g, F& b, int) {
        F const x = acesCurve(madd(a[0], r, madd(a[1], g, a[2] * b)));
        F const y = acesCurve(madd(a[3], r, madd(a[4], g, a[5] * b)));
        F const z = acesCurve(madd(a[6], r, madd(a[7], g, a[8] * b)));
        F const one(1.f), zero(0.f);
        F const nr = clampKeepNaN(madd(bm[0], x, madd(bm[1], y, bm[2] * z)), zero, one);
        F const ng = clampKeepNaN(madd(bm[3], x, madd(bm[4], y, bm[5] * z)), zero, one);
        F const nb = clampKeepNaN(madd(bm[6], x, madd(bm[7], y, bm[8] * z)), zero, one);
        r = madd(take, nr, keep * r);
        g = madd(take, ng, keep * g);
        b = madd(take, nb, keep * b);
    });
}

// ------------------------------------------------------------------ curves of one channel

void reinhardStep(Step const& s, Planes const& pl) {
    // (k c + 1) c / (c + 1) as c (k + (1 - k) / (c + 1)), as the operator has
    // it: exactly c for k = 1 and no overflow of k c^2 for large c.
    F const k(s.p[0]), oneMinusK(1.f - s.p[0]), one(1.f);
    // Negative input takes the curve's value at 0, as the operator's own mapping.
    perChannel(pl, [&](F c, int) {
        c = max(c, F(0.f));
        return max(F(0.f), c * (k + oneMinusK / (c + one)));
    });
}

void filmicStep(Step const& s, Planes const& pl) {
    F const shadows(s.p[1]), span(s.p[0] - s.p[1]);
    auto curve = [](F x) {
        return madd(F(1.0003055f), x, F(0.0021391737f)) * x / madd(x + F(0.43034402f), x, F(0.036029063f));
    };
    // The two forms of FilmicOperator::mapLanes: negative input as 0, and
    // beyond 1024 the blend that cannot cancel, on a bounded curve input.
    F const wFar = madd(span, F(1.f), shadows);
    perChannel(pl, [&](F x, int) {
        x = max(x, F(0.f));
        F const g = curve(min(x, F(1152921504606846976.f)));
        F const w = madd(span, min(x, F(1.f)), shadows);
        F const nearForm = madd(w, g - x, x);
        F const farForm = madd(wFar, g, (F(1.f) - wFar) * min(x, F(FLT_MAX)));
        return select(x > F(1024.f), farForm, nearForm);
    });
}

void contrastStep(Step const& s, Planes const& pl) {
    constexpr float LOG2_E = 1.44269504f, LN_2 = 0.69314718f;
    bool const steepening = s.p[5] != 0.f;
    F const scale(s.p[1]), offset(s.p[2]), low(s.p[3]), high(s.p[4]);
    F const slopeLog2(s.p[0] * LOG2_E), invSlopeLn(LN_2 / s.p[0]);
    perChannel(pl, [&](F c, int) {
        // The perceptual encoding and its approximate inverse: two fixed rational fits.
        F const pn = madd(madd(madd(F(13.85573769f), c, F(17.44413376f)), c, F(1.77772963f)), c, F(0.00817682f));
        F const pd = madd(madd(madd(F(3.95005584f), c, F(11.96034527f)), c, F(1.72200322f)), c, F(0.0093355f));
        F const p = pn / pd - F(0.8757956f);
        F z;
        if (steepening) {
            F const y = WideMath::exp2Approx((p - F(0.5f)) * slopeLog2);
            z = scale / (y + F(1.f)) + offset;
        } else {
            F const w = min(max(scale / (p - offset) - F(1.f), low), high);
            z = madd(WideMath::log2Approx(w), invSlopeLn, F(0.5f));
        }
        F const dn = madd(madd(madd(F(3.80483222f), z, F(0.63405341f)), z, F(0.51218796f)), z, F(0.18229988f));
        F const dd = madd(madd(madd(F(0.10437664f), z, F(-0.52414358f)), z, F(3.63386488f)), z, F(1.27901232f));
        F const result = max(F(0.f), dn / dd - F(0.14250813f));
        // The curve only acts inside (0, 1).
        M const outside = (c <= F(0.000001f)) | (c >= F(0.999999f));
        return select(outside, c, result);
    });
}

// ------------------------------------------------------------------ colour

void saturationStep(Step const& s, Planes const& pl) {
    F const k(s.p[0]), zero(0.f);
    forEachVector(pl, [&](F& r, F& g, F& b, int) {
        // Hexcone HSV with the saturation shifted, in closed form: each channel
        // is V + S' V (c - V) / chroma, hue untouched.
        r = max(zero, r), g = max(zero, g), b = max(zero, b);
        F const v = max(r, max(g, b));
        F const chroma = v - min(r, min(g, b));
        F const sat = select(v > zero, chroma / v, zero);
        F const shifted = select(sat > F(0.0001f), max(zero, sat + k), sat);
        F const f = select(chroma > zero, shifted * v / chroma, zero);
        r = madd(f, r - v, v), g = madd(f, g - v, v), b = madd(f, b - v, v);
    });
}

void vignetteStep(Step const& s, Planes const& pl) {
    F const r0(s.p[0]), steep(s.p[1]), scale(s.p[2]), cx(s.p[3]), cy(s.p[4]), ox(s.p[5]), oy(s.p[6]);
    forEachVector(pl, [&](F& r, F& g, F& b, int i) {
        F const u = (F::load(pl.x + i) + ox) * scale - cx;
        F const v = (F::load(pl.y + i) + oy) * scale - cy;
        F const t = min(max((u * u + v * v - r0) * steep, F(0.f)), F(1.f));
        F w = F(1.f) - t;
        w = w * w;
        w = w * w;
        F const f = w * w * w * (w * (F(6.f) * w - F(15.f)) + F(10.f));  // smootherstep
        r = r * f, g = g * f, b = b * f;
    });
}

void advancedFilmicStep(Step const& s, Planes const& pl) {
    float const contrast = s.p[0], toe = s.p[1], shoulder = s.p[3], desaturation = s.p[5];
    F const toeScale(s.p[2]), invWhite2(s.p[4]), one(1.f);
    auto curve = [&](F x) {
        x = max(x, F(0.f));
        if (contrast != 1.f) x = F(0.18f) * WideMath::powApprox(x * F(1.f / 0.18f), F(contrast));
        x = min(x, F(1152921504606846976.f));  // as the operator: toe and shoulder square x
        if (toe > 0.f) x = x * x / (x + F(toe)) * toeScale;
        if (shoulder > 0.f) {
            F const rr = x * madd(x, invWhite2, one) / (one + x);  // extended Reinhard: 1 at the white point
            x = madd(rr - x, F(shoulder), x);
        }
        return x;
    };
    forEachVector(pl, [&](F& r, F& g, F& b, int) {
        r = curve(r), g = curve(g), b = curve(b);
        if (desaturation > 0.f) {
            F const luma = madd(F(0.2126f), r, madd(F(0.7152f), g, F(0.0722f) * b));
            F const t = min(max((luma - F(0.5f)) * F(2.f), F(0.f)), one);
            F const a = F(desaturation) * (t * t * (F(3.f) - F(2.f) * t));
            r = madd(luma - r, a, r), g = madd(luma - g, a, g), b = madd(luma - b, a, b);
        }
    });
}

/// A monotone curve's table lookup: straight lines beyond the table, NaN kept.
F evaluateCurve(F x, float const* y, int size, float const* p) {
    F const xMin(p[0]), xMax(p[1]), scale(p[2]), slopeLow(p[3]), slopeHigh(p[4]);
    float const last = float(size - 1);
    F const t = (x - xMin) * scale;
    F const tc = min(max(t, F(0.f)), F(last - 1.f));  // lower sample, NaN to 0
    F const i0 = floor(tc);
    I const idx = truncateToInt(i0);
    F const a = gather(y, idx), b = gather(y + 1, idx);
    F const inside = madd(b - a, min(t - i0, F(1.f)), a);
    F const below = madd(x - xMin, slopeLow, F(y[0]));
    F const above = madd(x - xMax, slopeHigh, F(y[size - 1]));
    return select(t < F(0.f), below, select(t >= F(last), above, select(t >= F(0.f), inside, x)));
}

void curvesStep(Step const& s, Planes const& pl) {
    perChannel(pl, [&](F c, int ch) { return evaluateCurve(c, s.table[ch], s.ints[0], s.p + 5 * ch); });
}

void toneCurveStep(Step const& s, Planes const& pl) {
    F const grey(s.p[5]), invGrey(s.p[6]), zero(0.f);
    auto mapValue = [&](F v) {
        F const stops = evaluateCurve(WideMath::log2Approx(min(v * invGrey, F(FLT_MAX))), s.table[0], s.ints[0], s.p);
        return select(v > zero, grey * WideMath::exp2Approx(stops), v);
    };
    if (s.p[7] != 0.f) {
        forEachVector(pl, [&](F& r, F& g, F& b, int) {
            F const m = max(r, max(g, b));
            F const f = mapValue(m) / m;
            M const positive = m > zero;
            r = select(positive, r * f, r), g = select(positive, g * f, g), b = select(positive, b * f, b);
        });
    } else {
        perChannel(pl, [&](F c, int) { return mapValue(c); });
    }
}

// ------------------------------------------------------------------ LUT

void lutStep(Step const& s, Planes const& pl) {
    float const* const cube = s.table[0];
    float const* const shaper = s.table[1];
    int const n = s.ints[0], shaperSize = s.ints[1];
    bool const inSrgb = s.p[16] != 0.f, tetrahedral = s.p[15] != 0.f;
    F const encode(s.p[12]), decode(s.p[13]), opacity(s.p[14]), zero(0.f);
    F const last(float(n - 1)), lastBase(float(n > 2 ? n - 2 : 0));
    F const dr(4.f), dg(4.f * float(n)), db(4.f * float(n) * float(n)), nf{float(n)};
    // Three passes: the lattice cell of every pixel; the corners and their
    // weights; the corners read and blended. Each chain alone is short enough
    // for the processor to overlap many vectors (12 % faster than one pass).
    // Indices are kept as the bits of floats.
    alignas(64) float cellOf[CHUNK_PIXELS], fraction[3][CHUNK_PIXELS];
    alignas(64) float cornerOf[4][CHUNK_PIXELS], weightOf[4][CHUNK_PIXELS];
    for (int i = 0; i < pl.padded; i += L) {  // reads the planes only
        F c[3] = {F::load(pl.r + i), F::load(pl.g + i), F::load(pl.b + i)};
        if (inSrgb)
            for (F& x : c) x = WideMath::powApprox(max(x, zero), encode);
        if (shaper) {
            F const shaperLast(float(shaperSize - 1));
            for (int ch = 0; ch < 3; ++ch) {
                F const t = min(max(madd(c[ch], F(s.p[6 + ch]), F(s.p[9 + ch])), zero), shaperLast);
                F const i0 = min(floor(t), F(float(shaperSize - 2)));
                I const idx = truncateToInt(i0 * F(3.f)) + I(ch);
                F const a = gather(shaper, idx), bb = gather(shaper + 3, idx);
                c[ch] = madd(bb - a, t - i0, a);
            }
        }
        // Lattice coordinates, clamped (NaN to 0); the lower corner at most n - 2.
        F i0[3];
        for (int ch = 0; ch < 3; ++ch) {
            F const t = min(max(madd(c[ch], F(s.p[ch]), F(s.p[3 + ch])), zero), last);
            i0[ch] = min(floor(t), lastBase);
            (t - i0[ch]).store(fraction[ch] + i);
        }
        // Entry index in floats; exact in single precision up to 256^3 entries.
        bitsToFloat(truncateToInt(madd(madd(i0[2], nf, i0[1]), nf, i0[0])).shiftLeft(2)).store(cellOf + i);
    }
    if (tetrahedral) {
        for (int i = 0; i < pl.padded; i += L) {
            // The tetrahedron along the cell's diagonal: corners 000, the axis
            // of the largest fraction, that plus the axis of the middle one,
            // and 111, weighted by the differences of the sorted fractions.
            I const base = bitsToInt(F::load(cellOf + i));
            F const fr = F::load(fraction[0] + i), fg = F::load(fraction[1] + i), fb = F::load(fraction[2] + i);
            F const fMax = max(fr, max(fg, fb)), fMin = min(fr, min(fg, fb));
            F const fMid = max(min(fr, fg), min(max(fr, fg), fb));
            F const offMax = select((fr >= fg) & (fr >= fb), dr, select(fg >= fb, dg, db));
            F const offMin = select((fr <= fg) & (fr <= fb), dr, select(fg <= fb, dg, db));
            I const corner[4] = {base, base + truncateToInt(offMax), base + truncateToInt(dr + dg + db - offMin),
                                 base + truncateToInt(dr + dg + db)};
            F const w[4] = {F(1.f) - fMax, fMax - fMid, fMid - fMin, fMin};
            for (int k = 0; k < 4; ++k) {
                bitsToFloat(corner[k]).store(cornerOf[k] + i);
                w[k].store(weightOf[k] + i);
            }
        }
    }
    auto finish = [&](F (&out)[3], F& r, F& g, F& b) {
        if (inSrgb)
            for (F& x : out) x = WideMath::powApprox(max(x, zero), decode);
        if (s.p[14] >= 1.f) {
            r = out[0], g = out[1], b = out[2];
        } else {
            r = madd(out[0] - r, opacity, r), g = madd(out[1] - g, opacity, g), b = madd(out[2] - b, opacity, b);
        }
    };
    if (tetrahedral) {
        forEachVector(pl, [&](F& r, F& g, F& b, int i) {
            F out[3];
            for (int k = 0; k < 4; ++k) {
                F e[3];
                gatherRgb(cube, bitsToInt(F::load(cornerOf[k] + i)), e[0], e[1], e[2]);
                F const w = F::load(weightOf[k] + i);
                for (int ch = 0; ch < 3; ++ch) out[ch] = k == 0 ? e[ch] * w : madd(e[ch], w, out[ch]);
            }
            finish(out, r, g, b);
        });
        return;
    }
    I const odr = truncateToInt(dr), odg = truncateToInt(dg), odb = truncateToInt(db);
    auto lerp = [](F a, F b2, F t2) { return madd(b2 - a, t2, a); };
    forEachVector(pl, [&](F& r, F& g, F& b, int i) {
        I const base = bitsToInt(F::load(cellOf + i));
        F const f[3] = {F::load(fraction[0] + i), F::load(fraction[1] + i), F::load(fraction[2] + i)};
        // The cube's corners 000, 100, 010, 110, 001, ...: red blended first, then green, then blue.
        F x[4][3];
        for (int k = 0; k < 4; ++k) {
            I const at = base + ((k & 1) ? odg : I(0)) + ((k & 2) ? odb : I(0));
            F lo[3], hi[3];
            gatherRgb(cube, at, lo[0], lo[1], lo[2]);
            gatherRgb(cube, at + odr, hi[0], hi[1], hi[2]);
            for (int ch = 0; ch < 3; ++ch) x[k][ch] = lerp(lo[ch], hi[ch], f[0]);
        }
        F out[3];
        for (int ch = 0; ch < 3; ++ch) out[ch] = lerp(lerp(x[0][ch], x[1][ch], f[1]), lerp(x[2][ch], x[3][ch], f[1]), f[2]);
        finish(out, r, g, b);
    });
}

// ------------------------------------------------------------------ display transforms

// Two steps, for the reason given at agxStep below; the first is usually
// applied as the pixels are loaded.
void pbrOffsetStep(Step const&, Planes const& pl) {
    forEachVector(pl, [](F& r, F& g, F& b, int) { DisplayTransformMath::pbrNeutralOffset(r, g, b); });
}

void pbrNeutralStep(Step const&, Planes const& pl) {
    forEachVector(pl, [](F& r, F& g, F& b, int) { DisplayTransformMath::pbrNeutralCompress(r, g, b); });
}

// One channel at a time, and the log2 encoding and the sigmoid in passes of
// their own: the two chains in one pass were too long for the processor to
// overlap enough vectors (the split is 12 % faster on AMD Zen 3).
void agxStep(Step const&, Planes const& pl) {
    perChannel(pl, [](F c, int) { return DisplayTransformMath::agxLogEncode(c); });
    perChannel(pl, [](F u, int) { return DisplayTransformMath::agxSigmoid(min(max(u, F(0.f)), F(1.f))); });
}

// ------------------------------------------------------------------ fallback

void callbackStep(Step const& s, Planes const& pl) {
    for (int i = 0; i < pl.count; ++i) {
        float rgb[3] = {pl.r[i], pl.g[i], pl.b[i]};
        s.callback(s.owner, rgb, int(pl.x[i]), int(pl.y[i]));
        pl.r[i] = rgb[0], pl.g[i] = rgb[1], pl.b[i] = rgb[2];
    }
}

// ------------------------------------------------------------------ planes

/// x * 0 is NaN exactly for infinities and NaN; a sum of them finds either.
F nonFiniteProbe(F r, F g, F b) { return madd(r, F(0.f), madd(g, F(0.f), b * F(0.f))); }
bool isNaNLane(F probe) { return anyLane(isNaN(probe)); }

template <typename Transform> bool loadPlanesThrough(float const* src, int stride, Planes const& pl, Transform const& transform) {
    F probe(0.f);
    int i = 0;
    if (stride == 3) {
        for (; i + L <= pl.count; i += L) {
            F r, g, b;
            // The same pixels of the next chunk, a line at a time as this
            // one is read: whole frames 5 to 13 % faster than with the
            // processor's stream prefetcher alone. (Prefetching a chunk at
            // once, before it, was slower.) Past the end it fetches nothing.
            __builtin_prefetch(reinterpret_cast<void const*>(reinterpret_cast<std::uintptr_t>(src + 3 * i) +
                                                             3 * sizeof(float) * CHUNK_PIXELS));
            loadRgbPlanes(src + 3 * i, r, g, b);
            probe = probe + nonFiniteProbe(r, g, b);
            transform(r, g, b);
            r.store(pl.r + i), g.store(pl.g + i), b.store(pl.b + i);
        }
    }
    int const scalarFrom = i;
    for (; i < pl.count; ++i) {
        float const* p = src + std::size_t(stride) * std::size_t(i);
        pl.r[i] = p[0], pl.g[i] = p[1], pl.b[i] = p[2];
    }
    for (int k = pl.count; k < pl.padded; ++k) pl.r[k] = pl.g[k] = pl.b[k] = 0.f;
    // The scalar remainder (and stride 4) are probed here as whole vectors.
    for (int k = scalarFrom; k < pl.padded; k += L) {
        F r = F::load(pl.r + k), g = F::load(pl.g + k), b = F::load(pl.b + k);
        probe = probe + nonFiniteProbe(r, g, b);
        transform(r, g, b);
        r.store(pl.r + k), g.store(pl.g + k), b.store(pl.b + k);
    }
    return isNaNLane(probe);
}

bool loadPlanes(float const* src, int stride, Planes const& pl, Step const* first) {
    if (!first) return loadPlanesThrough(src, stride, pl, [](F&, F&, F&) {});
    if (first->kind == StepKind::PbrOffset)
        return loadPlanesThrough(src, stride, pl, [](F& r, F& g, F& b) { DisplayTransformMath::pbrNeutralOffset(r, g, b); });
    F m[12];
    for (int k = 0; k < 12; ++k) m[k] = F(first->p[k]);
    return loadPlanesThrough(src, stride, pl, [&](F& r, F& g, F& b) { affine(m, r, g, b); });
}

void storePlanes(Planes const& pl, float* dst, int stride) {
    int i = 0;
    if (stride == 3)
        for (; i + L <= pl.count; i += L) storeRgbPlanes(dst + 3 * i, F::load(pl.r + i), F::load(pl.g + i), F::load(pl.b + i));
    for (; i < pl.count; ++i) {
        float* p = dst + std::size_t(stride) * std::size_t(i);
        p[0] = pl.r[i], p[1] = pl.g[i], p[2] = pl.b[i];
    }
}

bool anyNonFinitePlanes(Planes const& pl) {
    F probe(0.f);
    for (int i = 0; i < pl.padded; i += L) probe = probe + nonFiniteProbe(F::load(pl.r + i), F::load(pl.g + i), F::load(pl.b + i));
    return isNaNLane(probe);
}

// Built at compile time: no code of a wider instruction set may run before the
// processor's features were checked.
constexpr Table makeTable() {
    Table t{};
    t.lanes = L;
    auto set = [&](StepKind k, StepFn fn) { t.steps[int(k)] = fn; };
    set(StepKind::Scale, scaleStep);
    set(StepKind::Affine, affineStep);
    set(StepKind::Clamp, clampStep);
    set(StepKind::Pow, powStep);
    set(StepKind::SignedPow, signedPowStep);
    set(StepKind::PowFixed, powFixedStep);
    set(StepKind::PowLinear, powLinearStep);
    set(StepKind::PowUnit, powUnitStep);
    set(StepKind::AcesCurve, acesCurveStep);
    set(StepKind::AcesTone, acesToneStep);
    set(StepKind::AcesBlend, acesBlendStep);
    set(StepKind::Reinhard, reinhardStep);
    set(StepKind::Filmic, filmicStep);
    set(StepKind::Contrast, contrastStep);
    set(StepKind::Saturation, saturationStep);
    set(StepKind::Vignette, vignetteStep);
    set(StepKind::AdvancedFilmic, advancedFilmicStep);
    set(StepKind::Curves, curvesStep);
    set(StepKind::ToneCurve, toneCurveStep);
    set(StepKind::Lut, lutStep);
    set(StepKind::PbrOffset, pbrOffsetStep);
    set(StepKind::PbrNeutral, pbrNeutralStep);
    set(StepKind::Agx, agxStep);
    set(StepKind::Callback, callbackStep);
    t.load = loadPlanes;
    t.store = storePlanes;
    t.anyNonFinite = anyNonFinitePlanes;
    return t;
}

constexpr Table TABLE = makeTable();

} // namespace
} // namespace Quelin::ColorKernels

/// Defines `function` as returning this file's kernels.
#define FERRIM_DEFINE_COLOR_KERNELS(function)                                                                          \
    namespace Quelin::ColorKernels {                                                                                  \
    Table const* function() { return &TABLE; }                                                                        \
    }
