// Colour-program kernels, one lane: the reference build that any processor runs.
#define QUELIN_WIDE_SCALAR 1
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"

namespace Quelin::ColorKernels {
Table const* scalarKernels() { return &TABLE; }
} // namespace Quelin::ColorKernels
