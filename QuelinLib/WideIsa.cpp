#include "QuelinLib/WideIsa.h"

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <immintrin.h>
#include <intrin.h>
#endif

namespace Quelin {

namespace {

WideIsa detect() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    // The builtins also check that the operating system saves the wide registers.
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq")) return WideIsa::Avx512;
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return WideIsa::Avx2;
    if (__builtin_cpu_supports("sse4.1")) return WideIsa::Sse41;
    return WideIsa::Scalar;
#elif defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
    int r[4];
    __cpuid(r, 0);
    int const maxLeaf = r[0];
    __cpuid(r, 1);
    bool const sse41 = (r[2] & (1 << 19)) != 0, fma = (r[2] & (1 << 12)) != 0;
    bool const osSaves = (r[2] & (1 << 27)) != 0;  // OSXSAVE
    if (!sse41) return WideIsa::Scalar;
    if (!osSaves || maxLeaf < 7) return WideIsa::Sse41;
    unsigned long long const xcr0 = _xgetbv(0);
    bool const ymm = (xcr0 & 0x6) == 0x6, zmm = (xcr0 & 0xE6) == 0xE6;
    __cpuidex(r, 7, 0);
    bool const avx2 = (r[1] & (1 << 5)) != 0, avx512f = (r[1] & (1 << 16)) != 0, avx512dq = (r[1] & (1 << 17)) != 0;
    if (zmm && avx512f && avx512dq) return WideIsa::Avx512;
    if (ymm && avx2 && fma) return WideIsa::Avx2;
    return WideIsa::Sse41;
#else
    return WideIsa::Scalar;
#endif
}

bool detectF16c() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx") && __builtin_cpu_supports("f16c");
#elif defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
    int r[4];
    __cpuid(r, 1);
    bool const avx = (r[2] & (1 << 28)) != 0, f16c = (r[2] & (1 << 29)) != 0, osSaves = (r[2] & (1 << 27)) != 0;
    return avx && f16c && osSaves && (_xgetbv(0) & 0x6) == 0x6;
#else
    return false;
#endif
}

} // namespace

bool hasHalfConversionInstructions() {
    static bool const sHas = detectF16c();
    return sHas;
}

WideIsa bestWideIsa() {
    static WideIsa const sBest = detect();
    return sBest;
}

bool isWideIsaSupported(WideIsa isa) { return int(isa) <= int(bestWideIsa()); }

StringView wideIsaName(WideIsa isa) {
    switch (isa) {
    case WideIsa::Scalar: return "scalar";
    case WideIsa::Sse41: return "sse4.1";
    case WideIsa::Avx2: return "avx2";
    case WideIsa::Avx512: return "avx512";
    }
    return "scalar";
}

} // namespace Quelin
