// Colour-program kernels, four lanes (the x86-64 baseline).
#include "QuelinLib/Float4.h"
#if QUELIN_FLOAT4_SSE
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
namespace Quelin::ColorKernels {
Table const* sse41Kernels() { return &TABLE; }
} // namespace Quelin::ColorKernels
#else
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
namespace Quelin::ColorKernels {
Table const* sse41Kernels() { return nullptr; }
} // namespace Quelin::ColorKernels
#endif
