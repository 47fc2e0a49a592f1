#pragma once
// The processor's half conversion (F16C) for the bulk converters: where the
// compiler can target it, QUELIN_HALF_F16C is 1 and QUELIN_TARGET_F16C marks
// the routines that use it. They run only when
// Detail::usesHardwareHalfConversion() (QuelinLib/Half.h) says so.
#if (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#define QUELIN_HALF_F16C 1
#include <immintrin.h>
#define QUELIN_TARGET_F16C __attribute__((target("avx,f16c")))
#elif defined(_MSC_VER) && defined(_M_X64)
#define QUELIN_HALF_F16C 1
#include <immintrin.h>
#define QUELIN_TARGET_F16C
#endif
