// The ".cube" and ".3dl" readers on arbitrary text. FERRIM_FUZZ_3DL picks
// the reader. A table that loads is also applied, so that its domain and
// sizes are exercised by the interpolation as well.
#include <cmath>

#include "Ferrim/colorMappingOperators/Lut.h"
#include "FuzzTarget.h"

using namespace Quelin;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
#ifdef FERRIM_FUZZ_3DL
    auto lut = parse3dlLut(FerrimFuzz::asText(data, size), "fuzz.3dl");
#else
    auto lut = parseCubeLut(FerrimFuzz::asText(data, size), "fuzz.cube");
#endif
    if (!lut) return 0;
    float const inf = INFINITY;
    for (Rgb const c : {Rgb(0.f), Rgb(0.5f, 0.25f, 1.f), Rgb(-1e30f, 2.f, 1e30f), Rgb(NAN, inf, -inf)})
        for (auto mode : {LutInterpolation::Trilinear, LutInterpolation::Tetrahedral}) (void)lut->apply(c, mode);
    return 0;
}
