#pragma once
// Pieces shared by the compositing maps: the blend modes, the optional
// smoothstep curve, the guard against deep or cyclic map graphs and the
// folding of inputs that do not vary.
#include <bit>
#include <cmath>

#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/ProceduralSupport.h"
#include "QuelinLib/Float4.h"

namespace Quelin {

/// How a top colour b combines with a bottom colour a, channel by channel.
/// The result f(a, b) is then faded in by the amount t: a + t (f(a, b) - a).
///
/// Values outside [0, 1] (HDR colours, negatives from colour math) follow the
/// formula as written unless the mode says otherwise:
///   Mix          b                          any values
///   Add          a + b                      unbounded
///   Subtract     a - b                      may go negative, kept
///   Multiply     a b                        unbounded, signs multiply
///   Screen       a + b - a b                = 1 - (1 - a)(1 - b); above 1 it can
///                                           fall below the larger input (2, 2 -> 0)
///   Overlay      a < 0.5 ? 2 a b : 1 - 2 (1 - a)(1 - b)   branch on a as is
///   Difference   |a - b|
///   Darken       min(a, b)                  Lighten  max(a, b)
///   SoftLight    (1 - 2 b) a^2 + 2 a b      a polynomial, defined everywhere
///   LinearLight  a + 2 b - 1                unbounded
///   ColorDodge   brightens a towards white and never lowers it: a <= 0 stays
///                a; otherwise min(a / (1 - b), max(a, 1)) for b < 1 and
///                max(a, 1) for b >= 1 (values already above 1 stay as they are)
///   ColorBurn    darkens a towards black and never raises it: a >= 1 stays a;
///                otherwise max(1 - (1 - a) / b, min(a, 0)) for b > 0 and
///                min(a, 0) for b <= 0 (negatives stay as they are)
/// A NaN in either input makes f NaN, except in Mix (f is b) and in Darken
/// and Lighten (f is the other input); the faded result is NaN whenever a is.
enum class BlendMode : int {
    Mix = 0, Add, Subtract, Multiply, Screen, Overlay, Difference, Darken, Lighten, SoftLight, LinearLight,
    ColorDodge, ColorBurn
};

namespace MapsDetail {

FERRIM_EXPORT SharedPtr<TypeDefinition const> const& blendModeType();

inline float blendChannel(BlendMode mode, float a, float b) {
    switch (mode) {
    case BlendMode::Mix: return b;
    case BlendMode::Add: return a + b;
    case BlendMode::Subtract: return a - b;
    case BlendMode::Multiply: return a * b;
    case BlendMode::Screen: return a + b - a * b;
    case BlendMode::Overlay: {
        // Both sides computed, then selected: the choice follows the data and would mispredict as a branch.
        float const lo = 2.f * a * b, hi = 1.f - 2.f * (1.f - a) * (1.f - b);
        return a < 0.5f ? lo : hi;
    }
    case BlendMode::Difference: return std::fabs(a - b);
    case BlendMode::Darken: return std::fmin(a, b);
    case BlendMode::Lighten: return std::fmax(a, b);
    case BlendMode::SoftLight: return (1.f - 2.f * b) * a * a + 2.f * a * b;
    case BlendMode::LinearLight: return a + 2.f * b - 1.f;
    case BlendMode::ColorDodge: {
        if (!(a > 0.f)) return a;
        float const cap = std::fmax(a, 1.f);
        return b < 1.f ? std::fmin(a / (1.f - b), cap) : (b >= 1.f ? cap : b);
    }
    case BlendMode::ColorBurn: {
        if (!(a < 1.f)) return a;
        float const floor = std::fmin(a, 0.f);
        return b > 0.f ? std::fmax(1.f - (1.f - a) / b, floor) : (b <= 0.f ? floor : b);
    }
    }
    return b;
}

/// f(a, b) faded in by t; alpha is blended linearly in every mode.
inline RgbAlpha blend(BlendMode mode, RgbAlpha const& a, RgbAlpha const& b, float t) {
    float const r = blendChannel(mode, a.r, b.r), g = blendChannel(mode, a.g, b.g), bl = blendChannel(mode, a.b, b.b);
    return {a.r + t * (r - a.r), a.g + t * (g - a.g), a.b + t * (bl - a.b), a.alpha + t * (b.alpha - a.alpha)};
}

/// A colour as four lanes, and back. A colour returned from a call arrives
/// as two halves of two floats each; joining them as two 64-bit lanes keeps
/// them in registers, where packing channel by channel goes through memory.
/// Callers compile without SLP vectorisation, which would undo this.
inline Float4 toLanes(RgbAlpha const& c) {
#if QUELIN_FLOAT4_SSE
    struct Half { float x, y; };
    double const lo = std::bit_cast<double>(Half{c.r, c.g}), hi = std::bit_cast<double>(Half{c.b, c.alpha});
    return _mm_castpd_ps(_mm_setr_pd(lo, hi));
#else
    return Float4(c.r, c.g, c.b, c.alpha);
#endif
}
inline RgbAlpha fromLanes(Float4 v) {
#if QUELIN_FLOAT4_SSE
    struct Half { float x, y; };
    auto const lo = std::bit_cast<Half>(_mm_cvtsd_f64(_mm_castps_pd(v.v)));
    auto const hi = std::bit_cast<Half>(_mm_cvtsd_f64(_mm_castps_pd(_mm_movehl_ps(v.v, v.v))));
    return {lo.x, lo.y, hi.x, hi.y};
#else
    return {v[0], v[1], v[2], v[3]};
#endif
}

/// {v, 1}: the alpha joined in a register (one unpack) rather than through a
/// general-purpose register, which sits on the result's latency.
inline MonoAlpha opaqueMono(float v) {
#if QUELIN_FLOAT4_SSE
    return std::bit_cast<MonoAlpha>(_mm_cvtsd_f64(_mm_castps_pd(_mm_unpacklo_ps(_mm_set_ss(v), _mm_set_ss(1.f)))));
#else
    return {v, 1.f};
#endif
}

/// An amount mapped through the optional curve: a smoothstep from `lower` to
/// `upper` (a step at `lower` when they meet or cross). Amounts are clamped to
/// [0, 1] first; NaN counts as 0.
struct AmountCurve {
    bool on = false;
    float lower = 0.f;
    float upper = 1.f;

    float apply(float t) const {
        t = t > 0.f ? (t < 1.f ? t : 1.f) : 0.f;
        if (!on) return t;
        if (!(upper > lower)) return t < lower ? 0.f : 1.f;
        float const x = clamp((t - lower) / (upper - lower), 0.f, 1.f);
        return x * x * (3.f - 2.f * x);
    }
};

/// Adds the "useCurve", "curveLower" and "curveUpper" properties.
FERRIM_EXPORT void addAmountCurve(ShadingDataObjectBuilder& b, StringView what);
FERRIM_EXPORT AmountCurve readAmountCurve(GenericDataObject const& data);

/// Counts how deep evaluator building has gone on this thread; deeper than
/// MAX_ENTITY_NESTING (which also bounds nesting in files) is refused with an
/// Exception naming the map, which also stops a map that reaches itself.
class FERRIM_EXPORT BuildDepthGuard {
public:
    explicit BuildDepthGuard(Entity const& map);
    ~BuildDepthGuard();
    BuildDepthGuard(BuildDepthGuard const&) = delete;
    BuildDepthGuard& operator=(BuildDepthGuard const&) = delete;
};

/// The evaluator of a colour-or-map value (for list items).
inline ColorOrMap::Evaluator inputEvaluator(GenericDataObject const& colorOrMap) {
    return ColorOrMap::Evaluator(ColorOrMap::fromData(colorOrMap));
}

/// An input taken over whole: its constant, or its own evaluator.
FERRIM_EXPORT IMap::OptimizedResult passThrough(ColorOrMap::Evaluator const& input);

/// Whether two constant inputs are equal in colour and mono.
inline bool sameConstant(ColorOrMap::Evaluator const& a, ColorOrMap::Evaluator const& b) {
    return a.isConstant() && b.isConstant() && a.getColor() == b.getColor() && a.getMono() == b.getMono();
}

/// Evaluates the map's own evaluator at a point that knows nothing, for
/// folding an evaluator whose inputs are all constant into a constant.
FERRIM_EXPORT IMap::OptimizedResult foldToConstant(IMapEvaluator const& evaluator);

} // namespace MapsDetail
} // namespace Quelin
