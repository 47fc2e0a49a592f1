#pragma once
// Which of the wide kernel builds (QuelinLib/Wide.h) this processor can run.
#include "QuelinLib/Base.h"

namespace Quelin {

/// Kernel builds, narrowest first.
enum class WideIsa : int {
    Scalar = 0,  ///< one lane, plain C++
    Sse41 = 1,   ///< four lanes (the x86-64 baseline of this project)
    Avx2 = 2,    ///< eight lanes, with FMA
    Avx512 = 3,  ///< sixteen lanes (AVX-512 F and DQ)
};

/// The widest build the processor and the operating system support; found
/// once, on first use.
WideIsa bestWideIsa();
/// Whether `isa` can run here.
bool isWideIsaSupported(WideIsa isa);
/// Whether the processor converts halves to floats in one instruction (F16C,
/// with the operating system saving the AVX registers it writes).
bool hasHalfConversionInstructions();
/// "scalar", "sse4.1", "avx2", "avx512".
StringView wideIsaName(WideIsa isa);
/// Lanes of one vector of `isa`.
constexpr int wideIsaLanes(WideIsa isa) { return isa == WideIsa::Avx512 ? 16 : isa == WideIsa::Avx2 ? 8 : isa == WideIsa::Sse41 ? 4 : 1; }

} // namespace Quelin
