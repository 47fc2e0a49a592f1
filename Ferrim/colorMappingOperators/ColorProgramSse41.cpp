// Colour-program kernels, four lanes (the x86-64 baseline).
#include "QuelinLib/Float4.h"
#if QUELIN_FLOAT4_SSE
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
FERRIM_DEFINE_COLOR_KERNELS(sse41Kernels)
#else
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
FERRIM_NO_COLOR_KERNELS(sse41Kernels)
#endif
