#pragma once
// Pixel types of images: mono, mono with alpha, RGB and RGBA with 8-bit,
// 16-bit, half or float channels, and two shared-exponent encodings.
#include "QuelinLib/Half.h"
#include "QuelinLib/Types.h"
#include <cmath>
#include <cstdint>

namespace Quelin {

enum class PixelFormat : std::uint8_t {
    Mono8,
    Mono16,
    MonoFloat,
    MonoAlpha8,
    MonoAlpha16,
    MonoAlphaFloat,
    Rgb8,
    Rgb16,
    RgbFloat,
    Rgba8,
    Rgba16,
    RgbaFloat,
    Rgbe,        ///< PixelRgbe: 8-bit RGB mantissas with a shared exponent
    MonoWithExp, ///< PixelMonoWithExp: 8-bit mantissa and exponent
    // Half channels (IEEE binary16), as half files store them.
    MonoHalf,
    MonoAlphaHalf,
    RgbHalf,
    RgbaHalf,
};
inline constexpr int PIXEL_FORMAT_COUNT = 18;

enum class ChannelType : std::uint8_t { UInt8, UInt16, Float, SharedExponent, Half };

/// Channels of the decoded pixel: Rgbe has 3, MonoWithExp 1.
int getChannelCount(PixelFormat format);
ChannelType getChannelType(PixelFormat format);
int getPixelBytes(PixelFormat format);
bool hasAlpha(PixelFormat format);
/// Text for messages and reports ("Rgba16").
char const* getPixelFormatName(PixelFormat format);

template <typename T> struct PixelMono {
    T value{};
    bool operator==(PixelMono const&) const = default;
};
template <typename T> struct PixelMonoWithAlpha {
    T value{}, alpha{};
    bool operator==(PixelMonoWithAlpha const&) const = default;
};
template <typename T> struct PixelRgb {
    T r{}, g{}, b{};
    bool operator==(PixelRgb const&) const = default;
};
template <typename T> struct PixelRgba {
    T r{}, g{}, b{}, a{};
    bool operator==(PixelRgba const&) const = default;
};

/// Shared-exponent RGB (Ward's RGBE): the largest channel sets the exponent.
struct PixelRgbe {
    std::uint8_t r = 0, g = 0, b = 0, e = 0;

    static PixelRgbe fromRgb(Rgb const& c) {
        // Negative and NaN channels cannot be stored: they become 0.
        float const r = c.r > 0.f ? c.r : 0.f, g = c.g > 0.f ? c.g : 0.f, b = c.b > 0.f ? c.b : 0.f;
        float const v = std::fmax(r, std::fmax(g, b));
        if (!(v >= 1e-32f))
            return {};
        int exponent;
        float const mantissa = std::frexp(v, &exponent);
        if (exponent > 127 || std::isinf(v))
            return {255, 255, 255, 255};
        float const scale = mantissa * 256.f / v;
        // Two roundings may reach 256 for the largest channel; keep it a byte.
        auto const byte = [scale](float x) { return std::uint8_t(std::fmin(x * scale, 255.f)); };
        return {byte(r), byte(g), byte(b), std::uint8_t(exponent + 128)};
    }
    Rgb toRgb() const {
        if (e == 0)
            return {};
        float const f = std::ldexp(1.f, int(e) - (128 + 8));
        return {float(r) * f, float(g) * f, float(b) * f};
    }
    bool operator==(PixelRgbe const&) const = default;
};

/// Shared-exponent mono: the same encoding with one mantissa.
struct PixelMonoWithExp {
    std::uint8_t value = 0, e = 0;

    static PixelMonoWithExp fromFloat(float v) {
        if (!(v >= 1e-32f))
            return {};
        int exponent;
        float const mantissa = std::frexp(v, &exponent);
        if (exponent > 127 || std::isinf(v))
            return {255, 255};
        return {std::uint8_t(std::fmin(mantissa * 256.f, 255.f)), std::uint8_t(exponent + 128)};
    }
    float toFloat() const { return e == 0 ? 0.f : float(value) * std::ldexp(1.f, int(e) - (128 + 8)); }
    bool operator==(PixelMonoWithExp const&) const = default;
};

using PixelMono8 = PixelMono<std::uint8_t>;
using PixelMono16 = PixelMono<std::uint16_t>;
using PixelMonoF = PixelMono<float>;
using PixelMonoWithAlpha8 = PixelMonoWithAlpha<std::uint8_t>;
using PixelMonoWithAlpha16 = PixelMonoWithAlpha<std::uint16_t>;
using PixelMonoWithAlphaF = PixelMonoWithAlpha<float>;
using PixelRgb8 = PixelRgb<std::uint8_t>;
using PixelRgb16 = PixelRgb<std::uint16_t>;
using PixelRgbF = PixelRgb<float>;
using PixelRgba8 = PixelRgba<std::uint8_t>;
using PixelRgba16 = PixelRgba<std::uint16_t>;
using PixelRgbaF = PixelRgba<float>;
using PixelMonoH = PixelMono<Half>;
using PixelMonoWithAlphaH = PixelMonoWithAlpha<Half>;
using PixelRgbH = PixelRgb<Half>;
using PixelRgbaH = PixelRgba<Half>;

/// The format of a pixel type, for checked typed access to images.
template <typename P> struct PixelFormatOf;
#define QUELIN_PIXEL_FORMAT_OF(Type, Format)                                                                           \
    template <> struct PixelFormatOf<Type> { static constexpr PixelFormat VALUE = PixelFormat::Format; }
QUELIN_PIXEL_FORMAT_OF(PixelMono8, Mono8);
QUELIN_PIXEL_FORMAT_OF(PixelMono16, Mono16);
QUELIN_PIXEL_FORMAT_OF(PixelMonoF, MonoFloat);
QUELIN_PIXEL_FORMAT_OF(PixelMonoWithAlpha8, MonoAlpha8);
QUELIN_PIXEL_FORMAT_OF(PixelMonoWithAlpha16, MonoAlpha16);
QUELIN_PIXEL_FORMAT_OF(PixelMonoWithAlphaF, MonoAlphaFloat);
QUELIN_PIXEL_FORMAT_OF(PixelRgb8, Rgb8);
QUELIN_PIXEL_FORMAT_OF(PixelRgb16, Rgb16);
QUELIN_PIXEL_FORMAT_OF(PixelRgbF, RgbFloat);
QUELIN_PIXEL_FORMAT_OF(PixelRgba8, Rgba8);
QUELIN_PIXEL_FORMAT_OF(PixelRgba16, Rgba16);
QUELIN_PIXEL_FORMAT_OF(PixelRgbaF, RgbaFloat);
QUELIN_PIXEL_FORMAT_OF(PixelRgbe, Rgbe);
QUELIN_PIXEL_FORMAT_OF(PixelMonoWithExp, MonoWithExp);
QUELIN_PIXEL_FORMAT_OF(PixelMonoH, MonoHalf);
QUELIN_PIXEL_FORMAT_OF(PixelMonoWithAlphaH, MonoAlphaHalf);
QUELIN_PIXEL_FORMAT_OF(PixelRgbH, RgbHalf);
QUELIN_PIXEL_FORMAT_OF(PixelRgbaH, RgbaHalf);
#undef QUELIN_PIXEL_FORMAT_OF

// Images store pixels tightly packed; the types must have no padding.
static_assert(sizeof(PixelRgb8) == 3 && sizeof(PixelRgb16) == 6 && sizeof(PixelRgbF) == 12);
static_assert(sizeof(PixelRgbe) == 4 && sizeof(PixelMonoWithExp) == 2 && sizeof(PixelMonoWithAlpha16) == 4);
static_assert(sizeof(PixelRgbH) == 6 && sizeof(PixelRgbaH) == 8);

} // namespace Quelin
