#pragma once
// Interleaving binary16 to float conversion for the sky data's records: a sky
// that reads its tables whole converts millions of values, so it must run at
// memory speed. x86-64 processors with
// F16C convert eight values per instruction; elsewhere the portable routine of
// QuelinLib/Half.h does the same work.
#include "Ferrim/Export.h"
#include "QuelinLib/Half.h"
#include <cstddef>

namespace Quelin {

/// Converts `rows` rows of `count` halves (row r at source + r * rowStrideBytes)
/// into floats interleaved row-fastest: value j of row r lands at
/// destination[j * rows + r], multiplied by rowScales[r] when scales are given.
FERRIM_EXPORT void convertHalvesInterleaved(void const* source, std::size_t rowStrideBytes, int rows, std::size_t count,
                                            float const* rowScales, float* destination);

namespace Detail {
/// The portable routine, whatever the processor offers (for tests and benchmarks).
FERRIM_EXPORT void convertHalvesInterleavedPortable(void const* source, std::size_t rowStrideBytes, int rows,
                                                    std::size_t count, float const* rowScales, float* destination);
} // namespace Detail

} // namespace Quelin
