// Colour-program kernels, eight lanes; built with AVX2 and FMA enabled (see
// Ferrim/CMakeLists.txt) and only called when the processor has both.
#if defined(__AVX2__) && defined(__FMA__)
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
FERRIM_DEFINE_COLOR_KERNELS(avx2Kernels)
#else
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
FERRIM_NO_COLOR_KERNELS(avx2Kernels)
#endif
