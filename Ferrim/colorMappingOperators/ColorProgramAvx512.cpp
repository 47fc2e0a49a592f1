// Colour-program kernels, sixteen lanes; built with AVX-512 F and DQ enabled
// (see Ferrim/CMakeLists.txt) and only called when the processor has them.
#if defined(__AVX512F__) && defined(__AVX512DQ__)
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12's own AVX-512 header trips this warning on its undefined-value helpers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
FERRIM_DEFINE_COLOR_KERNELS(avx512Kernels)
#else
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
FERRIM_NO_COLOR_KERNELS(avx512Kernels)
#endif
