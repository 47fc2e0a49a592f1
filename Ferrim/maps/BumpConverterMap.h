#pragma once
// Turns the mono output of any evaluator into a bump perturbation.
//
// With (u, v) the mapper's placed coordinates (UvMapper::computeUvw), m the
// evaluator's mono value and h_u, h_v the sampling steps, the slopes are
// central differences
//   g_u = (m(u + h_u, v) - m(u - h_u, v)) / (2 h_u)
//   g_v = (m(u, v + h_v) - m(u, v - h_v)) / (2 h_v)
// and the perturbation of the shading normal is
//   bump = -strength * scale * (g_u * T + g_v * B)
// where T and B are the first two columns of the mapper's bump base
// (UvMapper::computeBumpBase: the shading-space directions of growing u and v).
// Multiplying by `scale` measures the slopes per pattern size, so resizing a
// pattern keeps the look of its bump; the minus sign tilts the normal away
// from the uphill direction, as a height field m would.
//
// The step per axis is the larger of half the footprint (computeDUvw), so a
// minified pattern is differentiated at the scale it is seen, and
// STEP_FRACTION * scale, so a point with no footprint still resolves the
// pattern; it never falls below what float coordinates of that size can
// resolve. The offset points are evaluated through an OverridableUvwShadeContext
// that also moves the object or world position for the mapper's XYZ modes, so
// the evaluator sees them exactly as it sees the shading point. A placement
// that cannot be inverted (a zero scale) or a screen projection gives no bump.
#include "Ferrim/IMap.h"
#include "Ferrim/UvMapper.h"

namespace Quelin {

class FERRIM_EXPORT BumpConverterMap {
public:
    static constexpr float STEP_FRACTION = 1e-3f;

    static Dir evalBump(IShadeContext const& context, IMapEvaluator const& evaluator, UvMapper const& uvMapper,
                        float strength, float scale);
};

} // namespace Quelin
