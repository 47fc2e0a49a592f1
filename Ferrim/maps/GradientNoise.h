#pragma once
// The gradient noise of the noise map (improved Perlin noise with the
// 12-gradient lookup), inline for the maps that sum it per sample: the noise
// map and the fractal map compute bit-identical values from it.
#include <cstdint>
#include <cstring>

#include "QuelinLib/Wide.h"
#include "QuelinLib/Types.h"

namespace Quelin::MapsDetail {

// Ken Perlin's reference permutation (improved noise, 2002).
inline constexpr std::uint32_t PERMUTATION[256] = {
    151, 160, 137, 91,  90,  15,  131, 13,  201, 95,  96,  53,  194, 233, 7,   225, 140, 36,  103, 30,  69,  142,
    8,   99,  37,  240, 21,  10,  23,  190, 6,   148, 247, 120, 234, 75,  0,   26,  197, 62,  94,  252, 219, 203,
    117, 35,  11,  32,  57,  177, 33,  88,  237, 149, 56,  87,  174, 20,  125, 136, 171, 168, 68,  175, 74,  165,
    71,  134, 139, 48,  27,  166, 77,  146, 158, 231, 83,  111, 229, 122, 60,  211, 133, 230, 220, 105, 92,  41,
    55,  46,  245, 40,  244, 102, 143, 54,  65,  25,  63,  161, 1,   216, 80,  73,  209, 76,  132, 187, 208, 89,
    18,  169, 200, 196, 135, 130, 116, 188, 159, 86,  164, 100, 109, 198, 173, 186, 3,   64,  52,  217, 226, 250,
    124, 123, 5,   202, 38,  147, 118, 126, 255, 82,  85,  212, 207, 206, 59,  227, 47,  16,  58,  17,  182, 189,
    28,  42,  223, 183, 170, 213, 119, 248, 152, 2,   44,  154, 163, 70,  221, 153, 101, 155, 167, 43,  172, 9,
    129, 22,  39,  253, 19,  98,  108, 110, 79,  113, 224, 232, 178, 185, 112, 104, 218, 246, 97,  228, 251, 34,
    242, 193, 238, 210, 144, 12,  191, 179, 162, 241, 81,  51,  145, 235, 249, 14,  239, 107, 49,  192, 214, 31,
    181, 199, 106, 157, 184, 84,  204, 176, 115, 121, 50,  45,  127, 4,   150, 254, 138, 236, 205, 93,  222, 114,
    67,  29,  24,  72,  243, 141, 128, 195, 78,  66,  215, 61,  156, 180};

// Stored twice so that an index up to 511 needs no wrap.
constexpr StaticArray<std::uint32_t, 512> makeDoubledPermutation() {
    StaticArray<std::uint32_t, 512> p{};
    for (int i = 0; i < 512; ++i) p[std::size_t(i)] = PERMUTATION[i & 255];
    return p;
}
// The tables are the library's own (hidden): loads from them need no address
// from the global offset table.
#if defined(__GNUC__)
#define FERRIM_NOISE_TABLE [[gnu::visibility("hidden")]]
#else
#define FERRIM_NOISE_TABLE
#endif
FERRIM_NOISE_TABLE inline constexpr StaticArray<std::uint32_t, 512> PERM = makeDoubledPermutation();

// The 12 edge directions of a cube; the fourth lane is zero so a gradient is one load.
alignas(16) inline constexpr float GRADIENTS[12][4] = {
    {1, 1, 0, 0},  {-1, 1, 0, 0},  {1, -1, 0, 0},  {-1, -1, 0, 0}, {1, 0, 1, 0},  {-1, 0, 1, 0},
    {1, 0, -1, 0}, {-1, 0, -1, 0}, {0, 1, 1, 0},  {0, -1, 1, 0},  {0, 1, -1, 0}, {0, -1, -1, 0}};

// The gradient row of each permutation entry, P[i] mod 12, tabulated once so
// the corner lookups are plain loads.
constexpr StaticArray<std::uint8_t, 512> makeGradientIndex() {
    StaticArray<std::uint8_t, 512> g{};
    for (int i = 0; i < 512; ++i) g[std::size_t(i)] = std::uint8_t(PERM[std::size_t(i)] % 12u);
    return g;
}
inline constexpr StaticArray<std::uint8_t, 512> GRADIENT_INDEX = makeGradientIndex();

// The gradient of each permutation entry, GRADIENTS[P[i] mod 12], copied out
// (8 KiB): a corner's gradient is one load after its hash, with no index in between.
struct GradientOfHash {
    alignas(16) float g[512][4];
};
constexpr GradientOfHash makeGradientOfHash() {
    GradientOfHash t{};
    for (int i = 0; i < 512; ++i)
        for (int k = 0; k < 4; ++k) t.g[i][k] = GRADIENTS[GRADIENT_INDEX[std::size_t(i)]][k];
    return t;
}
FERRIM_NOISE_TABLE inline constexpr GradientOfHash GRADIENT_OF_HASH = makeGradientOfHash();

/// A point as (x, y, z, 0). Under SSE, x and y come over in one move: a point
/// returned by value arrives with x and y in one register, and filling the
/// lanes one by one would first store it to memory.
inline Float4 pointLanes(Pos const& p) {
#if QUELIN_FLOAT4_SSE
    double xy;
    std::memcpy(&xy, &p.x, sizeof xy);
    return _mm_movelh_ps(_mm_castpd_ps(_mm_set_sd(xy)), _mm_set_ss(p.z));
#else
    return Float4(p.x, p.y, p.z, 0.f);
#endif
}

// The permutation times the 16 bytes of a gradient row: the last hash level
// gives a row's byte offset, so the eight gradient loads need no index
// arithmetic (x + 1's row is 16 bytes further, an offset of the load itself).
constexpr StaticArray<std::uint32_t, 512> makeRowOffsets() {
    StaticArray<std::uint32_t, 512> o{};
    for (int i = 0; i < 512; ++i) o[std::size_t(i)] = PERM[std::size_t(i)] * std::uint32_t(sizeof(GRADIENT_OF_HASH.g[0]));
    return o;
}
FERRIM_NOISE_TABLE inline constexpr StaticArray<std::uint32_t, 512> ROW_OFFSET = makeRowOffsets();

/// The gradient row `offset` bytes into GRADIENT_OF_HASH.
inline Float4 gradientAt(std::uint32_t offset) {
    return Float4::load(reinterpret_cast<float const*>(reinterpret_cast<char const*>(GRADIENT_OF_HASH.g) + offset));
}

/// Noise of a point held as (x, y, z, 0). The lanes hold the four (y, z)
/// corners of the cell, so one point is one pass of four-lane arithmetic.
inline float gradientNoise(Float4 p) {
    using namespace Wide;
    // Cell: truncation toward zero, one lower where the coordinate is not
    // positive, so 0 and -1 fall in cells -1 and -2 (fraction 1.0, continuous).
    Int4 const cell = truncateToInt(p) + bitsToInt(p <= Float4(0.f));
    Float4 const f = p - convertToFloat(cell);
    std::uint32_t const X = std::uint32_t(lane<0>(cell)) & 255u;
    std::uint32_t const Y = std::uint32_t(lane<1>(cell)) & 255u;
    std::uint32_t const Z = std::uint32_t(lane<2>(cell)) & 255u;

    // z hashed first, then y, then x: the corner (x, y, z) has the gradient of
    // P[P[P[z] + y] + x], here as byte offsets of gradient rows.
    constexpr std::uint32_t ROW = sizeof(GRADIENT_OF_HASH.g[0]);
    std::uint32_t const A = PERM[Z] + Y, B = PERM[Z + 1] + Y;
    std::uint32_t const XR = X * ROW;
    std::uint32_t const AA = ROW_OFFSET[A] + XR, AB = ROW_OFFSET[A + 1] + XR, BA = ROW_OFFSET[B] + XR,
                        BB = ROW_OFFSET[B + 1] + XR;

    // Lanes are the (y, z) corners (0,0), (1,0), (0,1), (1,1); gx0.. for x = 0, gx1.. for x = 1.
    Float4 gx0, gy0, gz0, gx1, gy1, gz1;
    transpose3(gradientAt(AA), gradientAt(AB), gradientAt(BA), gradientAt(BB), gx0, gy0, gz0);
    transpose3(gradientAt(AA + ROW), gradientAt(AB + ROW), gradientAt(BA + ROW), gradientAt(BB + ROW), gx1, gy1, gz1);

    Float4 const fx = broadcastLane<0>(f);
    Float4 const oy = broadcastLane<1>(f) - Float4(0.f, 1.f, 0.f, 1.f);
    Float4 const oz = broadcastLane<2>(f) - Float4(0.f, 0.f, 1.f, 1.f);
    Float4 const d0 = gx0 * fx + gy0 * oy + gz0 * oz;
    Float4 const d1 = gx1 * (fx - Float4(1.f)) + gy1 * oy + gz1 * oz;

    // Quintic fade ((6t - 15)t + 10)t^3 per axis.
    Float4 const ramp = (f * Float4(6.f) - Float4(15.f)) * f + Float4(10.f);
    Float4 const fadeC = min(max(ramp * (f * f * f), Float4(0.f)), Float4(1.f));
    Float4 const u = broadcastLane<0>(fadeC), v = broadcastLane<1>(fadeC), w = broadcastLane<2>(fadeC);

    // Along x, then y, then z, with weights (1 - t, t).
    Float4 const bx = d0 * (Float4(1.f) - u) + d1 * u;  // (y,z): 00 10 01 11
    Float4 const lo = evenLanes(bx);                    // 00 01
    Float4 const hi = oddLanes(bx);                     // 10 11
    Float4 const by = lo * (Float4(1.f) - v) + hi * v;
    Float4 const bz = by * (Float4(1.f) - w);
    return lane<0>(bz) + lane<1>(by) * lane<0>(w);
}

} // namespace Quelin::MapsDetail
