// Colour-program kernels, eight lanes; built with AVX2 and FMA enabled (see
// Ferrim/CMakeLists.txt) and only called when the processor has both.
#if defined(__AVX2__) && defined(__FMA__)
#include "Ferrim/colorMappingOperators/ColorProgramKernelsImpl.h"
namespace Quelin::ColorKernels {
Table const* avx2Kernels() { return &TABLE; }
} // namespace Quelin::ColorKernels
#else
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
namespace Quelin::ColorKernels {
Table const* avx2Kernels() { return nullptr; }
} // namespace Quelin::ColorKernels
#endif
