// Colour-program kernels, one lane: the reference build that any processor runs.
#define QUELIN_WIDE_SCALAR 1
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
FERRIM_DEFINE_COLOR_KERNELS(scalarKernels)
