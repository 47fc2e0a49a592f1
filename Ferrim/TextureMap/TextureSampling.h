#pragma once
// Sampling kernels of image textures over one mip level, specialised per pixel
// format, texel conversion and filter. The texture map picks one routine when
// its evaluator is built; a routine does arithmetic and loads only.
//
// Coordinates: u grows to the right and v upwards over [0, 1]; rows are stored
// top first, so v = 1 is the top row. Texel i of a level of n texels has its
// centre at (i + 0.5) / n.
//
// Filters:
// - Nearest: the texel that contains the point (u = 1 belongs to the last one).
// - Bilinear: the four texels around the point, weighted by distance.
// - Bicubic: the uniform cubic B-spline over the 4 x 4 texels around the point.
//   It is C2-smooth (smooth highlights and bump), its weights are never
//   negative, so a result never leaves the range of its texels (no ringing at
//   edges), and it reproduces linear ramps exactly. It smooths a little more
//   than an interpolating cubic; that is the price of no overshoot.
//
// Texels beyond a border are found by the addressing of each axis: Clamp
// repeats the edge texel, Repeat takes them from the opposite border (seamless
// tiling) and Mirror reflects the level about its border.
//
// Conversion to linear light, per texel and before filtering:
// - Table8: 8-bit channels through a 256-entry table (the fixed (i/255)^2.2
//   table, or one made for another exponent when the evaluator is built),
//   8-bit alpha through the 256 entries i/255 that follow it;
// - None: the stored value (integer channels scaled to [0, 1]);
// - Power: sign(x) |x|^p (16-bit, half, float and shared-exponent texels).
// Half texels are read as stored and widened to float per lookup: with F16C
// in the build's target (-mf16c or -march) by the processor's conversion,
// otherwise by a few SSE integer operations that give the same bits.
// Alpha is never converted.
#include <cstddef>
#include <cstring>

#include "Ferrim/Export.h"
#include "QuelinLib/Base.h"
#include "QuelinLib/Exception.h"
#include "QuelinLib/ColorMath.h"
#include "QuelinLib/Float4.h"
#include "QuelinLib/Half.h"
#include "QuelinLibImage/Pixel.h"

namespace Quelin {

/// Lookup filter of the texture map; the values are those of its enumeration.
/// Anisotropic filters filtered lookups by probes along the footprint's long
/// axis (AnisotropicFilter.h); its level kernel, for unfiltered lookups and
/// each probe, is Bilinear.
enum class InterpolationMode : int { Bilinear = 0, Bicubic = 1, Nearest = 2, Anisotropic = 3 };

namespace TextureSampling {

enum class Address : std::uint8_t { Clamp, Repeat, Mirror };

/// Addressing of the two axes.
struct Addressing {
    Address u = Address::Clamp;
    Address v = Address::Clamp;
};

/// The shape of one level: what the kernels need besides its pixels.
struct LevelShape {
    int width = 0, height = 0;
    float widthF = 0.f, heightF = 0.f;
    std::int64_t rowBytes = 0;

    static LevelShape of(int width, int height, PixelFormat format) {
        return {width, height, float(width), float(height), std::int64_t(width) * getPixelBytes(format)};
    }
};

enum class Conversion : std::uint8_t { Table8, None, Power };

/// The colour table of 8-bit texels (entries 0 to 255) and their alpha table
/// (256 + i is i / 255): one base address for both. Every table's alpha entry
/// 256 + i is float(i) * (1.f / 255.f), bit for bit (the batch kernels compute
/// alpha so instead of reading it).
using Table8 = StaticArray<float, 512>;

/// Per-evaluator parameters of the texel conversion.
struct TexelConversion {
    float const* table = nullptr;  ///< a Table8, Table8 conversion only
    float power = 1.f;             ///< Power only
};

/// The fixed Table8: colour entry i is (i / 255)^2.2, a pure power law.
FERRIM_EXPORT float const* gamma22Table();
/// A table of (i / 255)^p (i / 255 itself for p = 1).
FERRIM_EXPORT Table8 makeTable8(float power);

/// A kernel: the filtered, converted colour with alpha (r, g, b, a) at (u, v)
/// in [0, 1]^2 of one level.
using SampleFunction = Float4 (*)(std::byte const* pixels, LevelShape const& level, float u, float v,
                                  Addressing addressing, TexelConversion const& conversion);

/// The specialised kernel of a format, filter and conversion (see `dispatch`).
FERRIM_EXPORT SampleFunction selectSampleFunction(PixelFormat format, InterpolationMode mode, Conversion conversion);

// ---------------------------------------------------------------- kernels

namespace Detail {

// Kernels are small and sit in the per-sample loop of their callers: always inlined there.
#if defined(__GNUC__)
#define QUELIN_TEXTURE_KERNEL [[gnu::always_inline]] inline
#else
#define QUELIN_TEXTURE_KERNEL inline
#endif

constexpr int channelsOf(PixelFormat f) {
    switch (f) {
    case PixelFormat::Mono8: case PixelFormat::Mono16: case PixelFormat::MonoFloat: case PixelFormat::MonoWithExp:
    case PixelFormat::MonoHalf: return 1;
    case PixelFormat::MonoAlpha8: case PixelFormat::MonoAlpha16: case PixelFormat::MonoAlphaFloat:
    case PixelFormat::MonoAlphaHalf: return 2;
    case PixelFormat::Rgb8: case PixelFormat::Rgb16: case PixelFormat::RgbFloat: case PixelFormat::Rgbe:
    case PixelFormat::RgbHalf: return 3;
    case PixelFormat::Rgba8: case PixelFormat::Rgba16: case PixelFormat::RgbaFloat: case PixelFormat::RgbaHalf: return 4;
    }
    return 0;
}

constexpr int bytesOf(PixelFormat f) {
    switch (f) {
    case PixelFormat::Rgbe: return 4;
    case PixelFormat::MonoWithExp: return 2;
    case PixelFormat::Mono8: case PixelFormat::MonoAlpha8: case PixelFormat::Rgb8: case PixelFormat::Rgba8:
        return channelsOf(f);
    case PixelFormat::Mono16: case PixelFormat::MonoAlpha16: case PixelFormat::Rgb16: case PixelFormat::Rgba16:
    case PixelFormat::MonoHalf: case PixelFormat::MonoAlphaHalf: case PixelFormat::RgbHalf: case PixelFormat::RgbaHalf:
        return 2 * channelsOf(f);
    default: return 4 * channelsOf(f);
    }
}

inline float u8(std::byte b) { return float(std::to_integer<unsigned>(b)); }

/// sign(x) |x|^p on the colour lanes; the alpha lane is kept.
inline Float4 signedPower(Float4 x, float p) {
    Float4 const sign = x & Float4(-0.f);
    Float4 const r = powApprox(abs(x), p) | sign;
    Float4 const alphaLane = asFloat4(Int4(0, 0, 0, -1));
    return select(alphaLane, x, r);
}

constexpr bool isHalfFormat(PixelFormat f) {
    return f == PixelFormat::MonoHalf || f == PixelFormat::MonoAlphaHalf || f == PixelFormat::RgbHalf ||
           f == PixelFormat::RgbaHalf;
}

/// Four halves as floats, exactly (infinities kept, NaNs quieted, as the
/// processor's conversion does).
inline Float4 halvesToFloat4(std::uint16_t const (&h)[4]) {
#if QUELIN_FLOAT4_SSE && defined(__F16C__)
    return _mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(h)));
#elif QUELIN_FLOAT4_SSE
    // As QuelinLib/Half.cpp's portable routine, four lanes at once: exponent
    // and mantissa moved to their float places, the special cases selected.
    __m128i const bits = _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(h)));
    __m128i const shifted = _mm_slli_epi32(_mm_and_si128(bits, _mm_set1_epi32(0x7FFF)), 13);
    __m128i const exponent = _mm_and_si128(shifted, _mm_set1_epi32(0x0F800000));
    __m128i const normal = _mm_add_epi32(shifted, _mm_set1_epi32(0x38000000));
    __m128i const quiet = _mm_and_si128(_mm_cmpgt_epi32(shifted, _mm_set1_epi32(0x0F800000)), _mm_set1_epi32(0x00400000));
    __m128i const special = _mm_or_si128(_mm_or_si128(shifted, _mm_set1_epi32(0x7F800000)), quiet);
    // Zero and subnormals: (2^-14 + m 2^-24) - 2^-14, exact and never a float subnormal.
    __m128 const bias = _mm_castsi128_ps(_mm_set1_epi32(0x38800000));
    __m128i const subnormal =
        _mm_castps_si128(_mm_sub_ps(_mm_castsi128_ps(_mm_add_epi32(shifted, _mm_set1_epi32(0x38800000))), bias));
    __m128i magnitude = _mm_blendv_epi8(normal, special, _mm_cmpeq_epi32(exponent, _mm_set1_epi32(0x0F800000)));
    magnitude = _mm_blendv_epi8(magnitude, subnormal, _mm_cmpeq_epi32(exponent, _mm_setzero_si128()));
    __m128i const sign = _mm_slli_epi32(_mm_and_si128(bits, _mm_set1_epi32(0x8000)), 16);
    return _mm_castsi128_ps(_mm_or_si128(magnitude, sign));
#else
    return Float4(halfToFloat(h[0]), halfToFloat(h[1]), halfToFloat(h[2]), halfToFloat(h[3]));
#endif
}

template <typename T> inline T loadAs(std::byte const* p) {
    T t;
    std::memcpy(&t, p, sizeof(T));
    return t;
}

/// One texel as (r, g, b, a) in linear light.
template <PixelFormat F, Conversion C> inline Float4 texel(std::byte const* p, TexelConversion const& cv) {
    constexpr float INV255 = 1.f / 255.f, INV65535 = 1.f / 65535.f;
    Float4 raw;
    if constexpr (F == PixelFormat::Mono8 || F == PixelFormat::MonoAlpha8 || F == PixelFormat::Rgb8 ||
                  F == PixelFormat::Rgba8) {
        constexpr int N = channelsOf(F);
        if constexpr (C == Conversion::Table8) {
            float const* t = cv.table;
            unsigned const c0 = std::to_integer<unsigned>(p[0]);
            if constexpr (N == 1) return Float4(t[c0], t[c0], t[c0], 1.f);
            if constexpr (N == 2) return Float4(t[c0], t[c0], t[c0], t[256 + std::to_integer<unsigned>(p[1])]);
            unsigned const c1 = std::to_integer<unsigned>(p[1]), c2 = std::to_integer<unsigned>(p[2]);
            if constexpr (N == 3) return Float4(t[c0], t[c1], t[c2], 1.f);
            if constexpr (N == 4) return Float4(t[c0], t[c1], t[c2], t[256 + std::to_integer<unsigned>(p[3])]);
        } else {
            if constexpr (N == 1) raw = Float4(u8(p[0]) * INV255, u8(p[0]) * INV255, u8(p[0]) * INV255, 1.f);
            if constexpr (N == 2) raw = Float4(u8(p[0]) * INV255, u8(p[0]) * INV255, u8(p[0]) * INV255, u8(p[1]) * INV255);
            if constexpr (N == 3) raw = Float4(u8(p[0]) * INV255, u8(p[1]) * INV255, u8(p[2]) * INV255, 1.f);
            if constexpr (N == 4) raw = Float4::fromBytes(p) * Float4(INV255);
        }
    } else if constexpr (F == PixelFormat::Mono16 || F == PixelFormat::MonoAlpha16 || F == PixelFormat::Rgb16 ||
                         F == PixelFormat::Rgba16) {
        constexpr int N = channelsOf(F);
        std::uint16_t c[4] = {0, 0, 0, 65535};
        std::memcpy(c, p, sizeof(std::uint16_t) * N);
        if constexpr (N == 1) raw = Float4(float(c[0]), float(c[0]), float(c[0]), 65535.f) * Float4(INV65535);
        if constexpr (N == 2) raw = Float4(float(c[0]), float(c[0]), float(c[0]), float(c[1])) * Float4(INV65535);
        if constexpr (N >= 3) raw = Float4(float(c[0]), float(c[1]), float(c[2]), float(c[3])) * Float4(INV65535);
    } else if constexpr (isHalfFormat(F)) {
        constexpr int N = channelsOf(F);
        constexpr std::uint16_t ONE = 0x3C00;  // 1.0: the alpha of formats without one
        std::uint16_t c[4] = {0, 0, 0, ONE};
        std::memcpy(c, p, sizeof(std::uint16_t) * N);
        if constexpr (N == 1) c[1] = c[2] = c[0];
        if constexpr (N == 2) c[3] = c[1], c[1] = c[2] = c[0];
        raw = halvesToFloat4(c);
    } else if constexpr (F == PixelFormat::MonoFloat) {
        float const m = loadAs<float>(p);
        raw = Float4(m, m, m, 1.f);
    } else if constexpr (F == PixelFormat::MonoAlphaFloat) {
        float c[2];
        std::memcpy(c, p, sizeof c);
        raw = Float4(c[0], c[0], c[0], c[1]);
    } else if constexpr (F == PixelFormat::RgbFloat) {
        float c[3];
        std::memcpy(c, p, sizeof c);
        raw = Float4(c[0], c[1], c[2], 1.f);
    } else if constexpr (F == PixelFormat::RgbaFloat) {
        raw = Float4::load(reinterpret_cast<float const*>(p));
    } else if constexpr (F == PixelFormat::Rgbe) {
        Rgb const c = loadAs<PixelRgbe>(p).toRgb();
        raw = Float4(c.r, c.g, c.b, 1.f);
    } else if constexpr (F == PixelFormat::MonoWithExp) {
        float const m = loadAs<PixelMonoWithExp>(p).toFloat();
        raw = Float4(m, m, m, 1.f);
    }
    if constexpr (C == Conversion::Power) return signedPower(raw, cv.power);
    return raw;
}

/// The index of tap t (possibly beyond a border) on an axis of n texels.
inline int address(int t, int n, Address mode) {
    if (t < 0 || t >= n) {
        if (mode == Address::Repeat) t = t < 0 ? t + n : t - n;
        else if (mode == Address::Mirror) t = t < 0 ? -1 - t : 2 * n - 1 - t;
        // Levels narrower than the kernel: whatever is left is clamped.
        t = t < 0 ? 0 : (t >= n ? n - 1 : t);
    }
    return t;
}

/// Pixels of the texel in column x, row y (rows from the top).
inline std::byte const* at(std::byte const* pixels, LevelShape const& l, int bytes, int x, int y) {
    return pixels + std::int64_t(y) * l.rowBytes + std::int64_t(x) * bytes;
}

template <PixelFormat F, Conversion C>
QUELIN_TEXTURE_KERNEL Float4 sampleNearest(std::byte const* pixels, LevelShape const& l, float u, float v, Addressing,
                     TexelConversion const& cv) {
    int x = int(u * l.widthF), y = int((1.f - v) * l.heightF);
    x = x < l.width ? x : l.width - 1;
    y = y < l.height ? y : l.height - 1;
    return texel<F, C>(at(pixels, l, bytesOf(F), x, y), cv);
}

/// The four texels of a bilinear lookup and the weights between them.
struct BilinearTaps {
    int x0, x1, y0, y1;
    float fx, fy;
};

QUELIN_TEXTURE_KERNEL BilinearTaps bilinearTaps(LevelShape const& l, float u, float v, Addressing a) {
    // u in [0, 1] puts x in [-0.5, n - 0.5]: only the first tap can fall
    // before the border and only the second beyond it.
    float const x = u * l.widthF - 0.5f, y = (1.f - v) * l.heightF - 0.5f;
    float const fx0 = std::floor(x), fy0 = std::floor(y);
    BilinearTaps t{int(fx0), int(fx0) + 1, int(fy0), int(fy0) + 1, x - fx0, y - fy0};
    if (t.x0 < 0) t.x0 = a.u == Address::Repeat ? l.width - 1 : 0;
    if (t.x1 >= l.width) t.x1 = a.u == Address::Repeat ? 0 : l.width - 1;
    if (t.y0 < 0) t.y0 = a.v == Address::Repeat ? l.height - 1 : 0;
    if (t.y1 >= l.height) t.y1 = a.v == Address::Repeat ? 0 : l.height - 1;
    return t;
}

/// Top row t00 to t01, bottom row t10 to t11.
QUELIN_TEXTURE_KERNEL Float4 blendBilinear(Float4 t00, Float4 t01, Float4 t10, Float4 t11, float fx, float fy) {
    Float4 const wx(fx);
    Float4 const top = t00 + (t01 - t00) * wx;
    Float4 const bottom = t10 + (t11 - t10) * wx;
    return top + (bottom - top) * Float4(fy);
}

template <PixelFormat F, Conversion C>
QUELIN_TEXTURE_KERNEL Float4 sampleBilinear(std::byte const* pixels, LevelShape const& l, float u, float v, Addressing a,
                      TexelConversion const& cv) {
    BilinearTaps const t = bilinearTaps(l, u, v, a);
    constexpr int B = bytesOf(F);
    std::byte const* r0 = pixels + std::int64_t(t.y0) * l.rowBytes;
    std::byte const* r1 = pixels + std::int64_t(t.y1) * l.rowBytes;
    return blendBilinear(texel<F, C>(r0 + std::int64_t(t.x0) * B, cv), texel<F, C>(r0 + std::int64_t(t.x1) * B, cv),
                         texel<F, C>(r1 + std::int64_t(t.x0) * B, cv), texel<F, C>(r1 + std::int64_t(t.x1) * B, cv), t.fx, t.fy);
}

/// Uniform cubic B-spline weights at fraction f.
inline void bsplineWeights(float f, float w[4]) {
    float const f2 = f * f, f3 = f2 * f, g = 1.f - f;
    constexpr float SIXTH = 1.f / 6.f;
    w[0] = g * g * g * SIXTH;
    w[1] = (3.f * f3 - 6.f * f2 + 4.f) * SIXTH;
    w[2] = (-3.f * f3 + 3.f * f2 + 3.f * f + 1.f) * SIXTH;
    w[3] = f3 * SIXTH;
}

template <PixelFormat F, Conversion C>
Float4 sampleBicubic(std::byte const* pixels, LevelShape const& l, float u, float v, Addressing a,
                     TexelConversion const& cv) {
    float const x = u * l.widthF - 0.5f, y = (1.f - v) * l.heightF - 0.5f;
    float const fx0 = std::floor(x), fy0 = std::floor(y);
    int const x0 = int(fx0), y0 = int(fy0);
    float wx[4], wy[4];
    bsplineWeights(x - fx0, wx);
    bsplineWeights(y - fy0, wy);
    int xs[4], ys[4];
    for (int k = 0; k < 4; ++k) {
        xs[k] = address(x0 - 1 + k, l.width, a.u);
        ys[k] = address(y0 - 1 + k, l.height, a.v);
    }
    constexpr int B = bytesOf(F);
    Float4 sum;
    for (int j = 0; j < 4; ++j) {
        std::byte const* row = pixels + std::int64_t(ys[j]) * l.rowBytes;
        Float4 line = texel<F, C>(row + std::int64_t(xs[0]) * B, cv) * Float4(wx[0]);
        for (int i = 1; i < 4; ++i) line += texel<F, C>(row + std::int64_t(xs[i]) * B, cv) * Float4(wx[i]);
        sum += line * Float4(wy[j]);
    }
    return sum;
}

/// Float and half texels: the ones that hold values beyond [0, 1].
constexpr bool isFloatFormat(PixelFormat f) {
    return f == PixelFormat::MonoFloat || f == PixelFormat::MonoAlphaFloat || f == PixelFormat::RgbFloat ||
           f == PixelFormat::RgbaFloat || isHalfFormat(f);
}

constexpr bool isEightBit(PixelFormat f) {
    return f == PixelFormat::Mono8 || f == PixelFormat::MonoAlpha8 || f == PixelFormat::Rgb8 || f == PixelFormat::Rgba8;
}

} // namespace Detail

/// The kernel of a format, conversion and filter, chosen at compile time.
template <PixelFormat F, Conversion C, InterpolationMode I>
QUELIN_TEXTURE_KERNEL Float4 sample(std::byte const* pixels, LevelShape const& level, float u, float v, Addressing addressing,
              TexelConversion const& conversion) {
    if constexpr (I == InterpolationMode::Nearest) return Detail::sampleNearest<F, C>(pixels, level, u, v, addressing, conversion);
    else if constexpr (I == InterpolationMode::Bicubic) return Detail::sampleBicubic<F, C>(pixels, level, u, v, addressing, conversion);
    else return Detail::sampleBilinear<F, C>(pixels, level, u, v, addressing, conversion);
}

/// Turns a format, conversion and filter known at run time into template
/// arguments: returns visit.template operator()<F, C, I>(). Table8 applies to
/// 8-bit formats only (None for the others); an unknown format is an internal stop.
template <typename Visitor>
auto dispatch(PixelFormat format, Conversion conversion, InterpolationMode mode, Visitor&& visit) {
    auto const byMode = [&]<PixelFormat F, Conversion C>() {
        switch (mode) {
        case InterpolationMode::Nearest: return visit.template operator()<F, C, InterpolationMode::Nearest>();
        case InterpolationMode::Bicubic: return visit.template operator()<F, C, InterpolationMode::Bicubic>();
        case InterpolationMode::Bilinear:
        case InterpolationMode::Anisotropic: break;
        }
        return visit.template operator()<F, C, InterpolationMode::Bilinear>();
    };
    auto const byConversion = [&]<PixelFormat F>() {
        if constexpr (Detail::isEightBit(F))
            if (conversion == Conversion::Table8) return byMode.template operator()<F, Conversion::Table8>();
        if (conversion == Conversion::Power) return byMode.template operator()<F, Conversion::Power>();
        return byMode.template operator()<F, Conversion::None>();
    };
    switch (format) {
    case PixelFormat::Mono8: return byConversion.template operator()<PixelFormat::Mono8>();
    case PixelFormat::Mono16: return byConversion.template operator()<PixelFormat::Mono16>();
    case PixelFormat::MonoFloat: return byConversion.template operator()<PixelFormat::MonoFloat>();
    case PixelFormat::MonoAlpha8: return byConversion.template operator()<PixelFormat::MonoAlpha8>();
    case PixelFormat::MonoAlpha16: return byConversion.template operator()<PixelFormat::MonoAlpha16>();
    case PixelFormat::MonoAlphaFloat: return byConversion.template operator()<PixelFormat::MonoAlphaFloat>();
    case PixelFormat::Rgb8: return byConversion.template operator()<PixelFormat::Rgb8>();
    case PixelFormat::Rgb16: return byConversion.template operator()<PixelFormat::Rgb16>();
    case PixelFormat::RgbFloat: return byConversion.template operator()<PixelFormat::RgbFloat>();
    case PixelFormat::Rgba8: return byConversion.template operator()<PixelFormat::Rgba8>();
    case PixelFormat::Rgba16: return byConversion.template operator()<PixelFormat::Rgba16>();
    case PixelFormat::RgbaFloat: return byConversion.template operator()<PixelFormat::RgbaFloat>();
    case PixelFormat::Rgbe: return byConversion.template operator()<PixelFormat::Rgbe>();
    case PixelFormat::MonoWithExp: return byConversion.template operator()<PixelFormat::MonoWithExp>();
    case PixelFormat::MonoHalf: return byConversion.template operator()<PixelFormat::MonoHalf>();
    case PixelFormat::MonoAlphaHalf: return byConversion.template operator()<PixelFormat::MonoAlphaHalf>();
    case PixelFormat::RgbHalf: return byConversion.template operator()<PixelFormat::RgbHalf>();
    case PixelFormat::RgbaHalf: return byConversion.template operator()<PixelFormat::RgbaHalf>();
    }
    Quelin::Detail::throwStopException("TextureMap/TextureSampling", __LINE__);
}

} // namespace TextureSampling
} // namespace Quelin
