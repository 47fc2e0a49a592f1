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

/// Converts `rows` rows of `count` halves (row r at source + r * rowStrideBytes)
/// into floats interleaved row-fastest: value j of row r lands at
/// destination[j * rows + r], multiplied by rowScales[r] when scales are given.
FERRIM_EXPORT void convertHalvesInterleaved(void const* source, std::size_t rowStrideBytes, int rows, std::size_t count,
                                            float const* rowScales, float* destination);

namespace Detail {
/// The portable routines, whatever the processor offers (for tests and benchmarks).
FERRIM_EXPORT void convertHalvesToFloatsPortable(void const* source, float* destination, std::size_t count);
FERRIM_EXPORT void convertHalvesInterleavedPortable(void const* source, std::size_t rowStrideBytes, int rows,
                                                    std::size_t count, float const* rowScales, float* destination);
/// Whether convertHalvesToFloats uses the processor's conversion instruction.
FERRIM_EXPORT bool usesHardwareHalfConversion();
} // namespace Detail

} // namespace Quelin
