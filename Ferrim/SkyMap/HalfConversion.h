#pragma once
// Bulk binary16 to float conversion for the sky data files: millions of values
// per load, so it must run at memory speed. x86-64 processors with F16C convert
// eight values per instruction; elsewhere a branch-free routine that compilers
// vectorise does the same work.
#include "Ferrim/Export.h"
#include <cstddef>

namespace Quelin {

/// Converts `count` little-endian halves at `source` (any alignment) into
/// floats. Exact for every value: zeros, subnormals, infinities; a NaN stays a
/// NaN with its sign and payload, signalling ones becoming quiet (as the
/// processor's conversion does, so both routines agree bit for bit).
FERRIM_EXPORT void convertHalvesToFloats(void const* source, float* destination, std::size_t count);

namespace Detail {
/// The portable routine, whatever the processor offers (for tests and benchmarks).
FERRIM_EXPORT void convertHalvesToFloatsPortable(void const* source, float* destination, std::size_t count);
/// Whether convertHalvesToFloats uses the processor's conversion instruction.
FERRIM_EXPORT bool usesHardwareHalfConversion();
} // namespace Detail

} // namespace Quelin
