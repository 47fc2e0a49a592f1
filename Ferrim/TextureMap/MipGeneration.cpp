#include "Ferrim/TextureMap/MipGeneration.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "QuelinLib/Half.h"

namespace Quelin {

namespace {

/// Which source pixels along one axis make up each destination pixel, and
/// with what weight: destination j covers [j r, (j + 1) r) of the source, r =
/// n / m, and each source pixel contributes the part of it inside that span
/// over r. Every source pixel's weights add up to 1 / r, so the mean stays.
struct AxisTaps {
    static constexpr int MAX_TAPS = 4; // r < 3 for n >= 2 (r = 3 only for n = 3): at most 4 pixels touched
    Stack<int> first;
    Stack<int> count;
    Stack<float> weights; // MAX_TAPS per destination pixel

    AxisTaps(int n, int m) : first(std::size_t(m)), count(std::size_t(m)), weights(std::size_t(m) * MAX_TAPS, 0.f) {
        double const r = double(n) / double(m);
        for (int j = 0; j < m; ++j) {
            double const begin = j * r, end = (j + 1) * r;
            int const i0 = int(std::floor(begin));
            int const i1 = std::min(n, int(std::ceil(end)));
            first[std::size_t(j)] = i0;
            count[std::size_t(j)] = i1 - i0;
            for (int i = i0; i < i1; ++i) {
                double const overlap = std::min<double>(i + 1, end) - std::max<double>(i, begin);
                weights[std::size_t(j) * MAX_TAPS + std::size_t(i - i0)] = float(overlap / r);
            }
        }
    }
    float weight(int j, int t) const { return weights[std::size_t(j) * MAX_TAPS + std::size_t(t)]; }
};

// Decoded channel count of each level format.
int floatChannels(PixelFormat format) { return getChannelType(format) == ChannelType::SharedExponent ? 3 : getChannelCount(format); }

/// One row of any format as float channels in its own units (0..255 for 8-bit).
void rowToFloat(Image const& image, int y, float* out) {
    int const width = image.getWidth();
    std::byte const* row = image.getData() + std::int64_t(y) * image.getRowBytes();
    int const channels = getChannelCount(image.getFormat());
    std::size_t const count = std::size_t(width) * std::size_t(channels);
    switch (getChannelType(image.getFormat())) {
    case ChannelType::UInt8: {
        auto const* p = reinterpret_cast<std::uint8_t const*>(row);
        for (std::size_t i = 0; i < count; ++i) out[i] = float(p[i]);
        break;
    }
    case ChannelType::UInt16: {
        auto const* p = reinterpret_cast<std::uint16_t const*>(row);
        for (std::size_t i = 0; i < count; ++i) out[i] = float(p[i]);
        break;
    }
    case ChannelType::Float: std::memcpy(out, row, count * sizeof(float)); break;
    case ChannelType::Half: convertHalvesToFloats(row, out, count); break;
    case ChannelType::SharedExponent:
        if (image.getFormat() == PixelFormat::Rgbe) {
            auto const* p = reinterpret_cast<PixelRgbe const*>(row);
            for (int x = 0; x < width; ++x) {
                Rgb const c = p[x].toRgb();
                out[3 * x] = c.r, out[3 * x + 1] = c.g, out[3 * x + 2] = c.b;
            }
        } else {
            auto const* p = reinterpret_cast<PixelMonoWithExp const*>(row);
            for (int x = 0; x < width; ++x) out[3 * x] = out[3 * x + 1] = out[3 * x + 2] = p[x].toFloat();
        }
        break;
    }
}

/// Stores float channels into a row of a plain format, rounding to the nearest
/// (ties to even, so rounding adds no bias to the mean) and clamping.
void rowFromFloat(float const* in, Image& image, int y) {
    std::byte* row = image.getData() + std::int64_t(y) * image.getRowBytes();
    std::size_t const count = std::size_t(image.getWidth()) * std::size_t(getChannelCount(image.getFormat()));
    switch (getChannelType(image.getFormat())) {
    case ChannelType::UInt8: {
        auto* p = reinterpret_cast<std::uint8_t*>(row);
        for (std::size_t i = 0; i < count; ++i) p[i] = std::uint8_t(std::clamp(std::nearbyint(in[i]), 0.f, 255.f));
        break;
    }
    case ChannelType::UInt16: {
        auto* p = reinterpret_cast<std::uint16_t*>(row);
        for (std::size_t i = 0; i < count; ++i) p[i] = std::uint16_t(std::clamp(std::nearbyint(in[i]), 0.f, 65535.f));
        break;
    }
    case ChannelType::Float: std::memcpy(row, in, count * sizeof(float)); break;
    case ChannelType::Half: floatToHalf(in, reinterpret_cast<std::uint16_t*>(row), count); break;
    case ChannelType::SharedExponent: Detail::throwStopException("TextureMap/MipGeneration", __LINE__);
    }
}

/// Any sizes and formats: separable exact-area weights.
void downsampleRows(Image const& src, Image& dst, AxisTaps const& tx, AxisTaps const& ty, int y0, int y1) {
    int const channels = floatChannels(src.getFormat());
    int const dstWidth = dst.getWidth();
    Stack<float> line(std::size_t(src.getWidth()) * std::size_t(channels));
    Stack<float> sum(std::size_t(dstWidth) * std::size_t(channels));
    for (int y = y0; y < y1; ++y) {
        std::fill(sum.begin(), sum.end(), 0.f);
        for (int t = 0; t < ty.count[std::size_t(y)]; ++t) {
            float const wy = ty.weight(y, t);
            rowToFloat(src, ty.first[std::size_t(y)] + t, line.data());
            for (int x = 0; x < dstWidth; ++x) {
                float* out = sum.data() + std::size_t(x) * std::size_t(channels);
                int const i0 = tx.first[std::size_t(x)];
                for (int u = 0; u < tx.count[std::size_t(x)]; ++u) {
                    float const w = wy * tx.weight(x, u);
                    float const* in = line.data() + std::size_t(i0 + u) * std::size_t(channels);
                    for (int c = 0; c < channels; ++c) out[c] += w * in[c];
                }
            }
        }
        rowFromFloat(sum.data(), dst, y);
    }
}

/// Even sizes: the plain 2 x 2 average, the common case, kept tight. Sums
/// of integer channels are exact in float.
template <typename T, int C> void box2x2Rows(Image const& src, Image& dst, int y0, int y1) {
    int const width = dst.getWidth();
    auto const srcRow = [&](int y) { return reinterpret_cast<T const*>(src.getData() + std::int64_t(y) * src.getRowBytes()); };
    for (int y = y0; y < y1; ++y) {
        T const* a = srcRow(2 * y);
        T const* b = srcRow(2 * y + 1);
        float* d = reinterpret_cast<float*>(dst.getData() + std::int64_t(y) * dst.getRowBytes());
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < C; ++c) {
                std::size_t const i = std::size_t(2 * x) * C + std::size_t(c);
                d[std::size_t(x) * C + std::size_t(c)] =
                    ((float(a[i]) + float(a[i + C])) + (float(b[i]) + float(b[i + C]))) * 0.25f;
            }
        }
    }
}

template <typename T> void box2x2ByChannels(int channels, Image const& src, Image& dst, int y0, int y1) {
    switch (channels) {
    case 1: box2x2Rows<T, 1>(src, dst, y0, y1); break;
    case 2: box2x2Rows<T, 2>(src, dst, y0, y1); break;
    case 3: box2x2Rows<T, 3>(src, dst, y0, y1); break;
    default: box2x2Rows<T, 4>(src, dst, y0, y1); break;
    }
}

/// s / 2^k rounded to the nearest integer, ties to even (as the float path rounds).
constexpr std::uint32_t roundShift(std::uint32_t s, int k) { return (s + (1u << (k - 1)) - 1 + ((s >> k) & 1)) >> k; }

/// Levels 1 and 2 at once from an integer level 0 whose sides are multiples
/// of 4: each level-2 texel's 4 x 4 block gives its four level-1 texels and
/// itself as exact integer sums, rounded once each. Level 1 is never held in
/// float; `carry` gets level 2's unrounded values for the levels below.
template <typename T, int C>
void box4x4Rows(Image const& src, Image& level1, Image& level2, Image& carry, int y0, int y1) {
    auto const row = [](Image const& image, int y) { return image.getData() + std::int64_t(y) * image.getRowBytes(); };
    int const width1 = level1.getWidth(), width2 = level2.getWidth();
    // The exact sums of two level-1 rows (16 bits hold those of 8-bit texels);
    // loops of the plain 2 x 2 shape, which vectorise.
    using Sum = std::conditional_t<sizeof(T) == 1, std::uint16_t, std::uint32_t>;
    Stack<Sum> sums(2 * std::size_t(width1) * C);
    for (int y = y0; y < y1; ++y) {
        for (int h = 0; h < 2; ++h) {
            auto const* a = reinterpret_cast<T const*>(row(src, 4 * y + 2 * h));
            auto const* b = reinterpret_cast<T const*>(row(src, 4 * y + 2 * h + 1));
            auto* d = reinterpret_cast<T*>(const_cast<std::byte*>(row(level1, 2 * y + h)));
            Sum* sum = sums.data() + std::size_t(h) * std::size_t(width1) * C;
            for (int x = 0; x < width1; ++x)
                for (int c = 0; c < C; ++c) {
                    std::size_t const i = std::size_t(2 * x) * C + std::size_t(c), o = std::size_t(x) * C + std::size_t(c);
                    Sum const v = Sum(Sum(a[i]) + a[i + C] + b[i] + b[i + C]);
                    sum[o] = v;
                    d[o] = T(Sum(v + 1 + ((v >> 2) & 1)) >> 2);
                }
        }
        Sum const* s0 = sums.data();
        Sum const* s1 = s0 + std::size_t(width1) * C;
        auto* d = reinterpret_cast<T*>(const_cast<std::byte*>(row(level2, y)));
        auto* f = reinterpret_cast<float*>(const_cast<std::byte*>(row(carry, y)));
        for (int x = 0; x < width2; ++x)
            for (int c = 0; c < C; ++c) {
                std::size_t const i = std::size_t(2 * x) * C + std::size_t(c), o = std::size_t(x) * C + std::size_t(c);
                std::uint32_t const v = std::uint32_t(s0[i]) + s0[i + C] + s1[i] + s1[i + C];
                d[o] = T(roundShift(v, 4));
                f[o] = float(v) * (1.f / 16.f);
            }
    }
}

template <typename T> void box4x4ByChannels(int channels, Image const& src, Image& l1, Image& l2, Image& carry, int y0, int y1) {
    switch (channels) {
    case 1: box4x4Rows<T, 1>(src, l1, l2, carry, y0, y1); break;
    case 2: box4x4Rows<T, 2>(src, l1, l2, carry, y0, y1); break;
    case 3: box4x4Rows<T, 3>(src, l1, l2, carry, y0, y1); break;
    default: box4x4Rows<T, 4>(src, l1, l2, carry, y0, y1); break;
    }
}

/// The float format with `format`'s channels (three for the shared-exponent ones).
PixelFormat floatFormatOf(PixelFormat format) {
    switch (floatChannels(format)) {
    case 1: return PixelFormat::MonoFloat;
    case 2: return PixelFormat::MonoAlphaFloat;
    case 3: return PixelFormat::RgbFloat;
    default: return PixelFormat::RgbaFloat;
    }
}

/// The next coarser level of `finer` in float, in the units of `finer`'s
/// channels (0..255 for 8 bits). With `rounded`, also that level stored in
/// `rounded`'s format, row by row while the float rows are fresh in cache.
Image downsampleToFloat(Image const& finer, Image* rounded, TaskScheduler& scheduler) {
    Pixel const size = finer.getResolution();
    Image coarser = Image::makeForOverwrite(Image::Descriptor(MipGeneration::getLevelResolution(size, 1), floatFormatOf(finer.getFormat())));
    int const width = coarser.getWidth(), height = coarser.getHeight();
    // About 64 Ki destination pixels per task: enough work to outweigh scheduling.
    std::int64_t const grain = std::max(1, 65536 / width);
    ChannelType const type = getChannelType(finer.getFormat());
    bool const even = size.x % 2 == 0 && size.y % 2 == 0 && type != ChannelType::SharedExponent && type != ChannelType::Half;
    AxisTaps const tx(size.x, width), ty(size.y, height);
    int const channels = getChannelCount(coarser.getFormat());
    scheduler.parallelFor(0, height, grain, [&](std::int64_t y0, std::int64_t y1) {
        if (!even) downsampleRows(finer, coarser, tx, ty, int(y0), int(y1));
        else if (type == ChannelType::UInt8) box2x2ByChannels<std::uint8_t>(channels, finer, coarser, int(y0), int(y1));
        else if (type == ChannelType::UInt16) box2x2ByChannels<std::uint16_t>(channels, finer, coarser, int(y0), int(y1));
        else box2x2ByChannels<float>(channels, finer, coarser, int(y0), int(y1));
        if (rounded)
            for (std::int64_t y = y0; y < y1; ++y)
                rowFromFloat(reinterpret_cast<float const*>(coarser.getData() + y * coarser.getRowBytes()), *rounded, int(y));
    });
    return coarser;
}

/// Whether levels of `format` are stored rounded (integer and half channels).
bool isRounded(PixelFormat levelFormat) {
    ChannelType const type = getChannelType(levelFormat);
    return type == ChannelType::UInt8 || type == ChannelType::UInt16 || type == ChannelType::Half;
}

} // namespace

namespace MipGeneration {

int getLevelCount(Pixel resolution) {
    int levels = 1;
    for (int w = resolution.x, h = resolution.y; w > 1 || h > 1; ++levels) w = std::max(1, w / 2), h = std::max(1, h / 2);
    return levels;
}

Pixel getLevelResolution(Pixel resolution, int level) {
    for (int i = 0; i < level; ++i) resolution = {std::max(1, resolution.x / 2), std::max(1, resolution.y / 2)};
    return resolution;
}

PixelFormat getLevelFormat(PixelFormat level0Format) {
    return getChannelType(level0Format) == ChannelType::SharedExponent ? PixelFormat::RgbFloat : level0Format;
}

Image downsample(Image const& finer, TaskScheduler& scheduler) {
    PixelFormat const format = getLevelFormat(finer.getFormat());
    if (!isRounded(format)) return downsampleToFloat(finer, nullptr, scheduler);
    Image coarser = Image::makeForOverwrite(Image::Descriptor(getLevelResolution(finer.getResolution(), 1), format));
    (void)downsampleToFloat(finer, &coarser, scheduler);
    return coarser;
}

Stack<Image> buildMipChain(Image const& level0, TaskScheduler* scheduler) {
    TaskScheduler& s = scheduler ? *scheduler : TaskScheduler::getDefault();
    Stack<Image> levels;
    int const count = getLevelCount(level0.getResolution());
    levels.reserve(std::size_t(std::max(0, count - 1)));
    PixelFormat const format = getLevelFormat(level0.getFormat());
    if (!isRounded(format)) {
        for (int i = 1; i < count; ++i) levels.push_back(downsampleToFloat(i == 1 ? level0 : levels.back(), nullptr, s));
        return levels;
    }
    // Integer and half levels: each one filtered from the float level before
    // it, not from that level rounded, so each is level 0's filtered value
    // rounded once and rounding errors do not add up down the chain.
    Image carry;
    int i = 1;
    Pixel const size = level0.getResolution();
    ChannelType const type = getChannelType(format);
    if ((type == ChannelType::UInt8 || type == ChannelType::UInt16) && size.x % 4 == 0 && size.y % 4 == 0) {
        // The common case, an integer texture of even sides: levels 1 and 2 in
        // one pass of exact sums, without a float copy of level 1.
        Image l1 = Image::makeForOverwrite(Image::Descriptor(getLevelResolution(size, 1), format));
        Image l2 = Image::makeForOverwrite(Image::Descriptor(getLevelResolution(size, 2), format));
        carry = Image::makeForOverwrite(Image::Descriptor(l2.getResolution(), floatFormatOf(format)));
        int const channels = getChannelCount(format);
        s.parallelFor(0, l2.getHeight(), std::max(1, 16384 / l2.getWidth()), [&](std::int64_t y0, std::int64_t y1) {
            if (type == ChannelType::UInt8) box4x4ByChannels<std::uint8_t>(channels, level0, l1, l2, carry, int(y0), int(y1));
            else box4x4ByChannels<std::uint16_t>(channels, level0, l1, l2, carry, int(y0), int(y1));
        });
        levels.push_back(std::move(l1));
        levels.push_back(std::move(l2));
        i = 3;
    }
    for (; i < count; ++i) {
        Image rounded = Image::makeForOverwrite(Image::Descriptor(getLevelResolution(level0.getResolution(), i), format));
        carry = downsampleToFloat(i == 1 ? level0 : carry, &rounded, s);
        levels.push_back(std::move(rounded));
    }
    return levels;
}

} // namespace MipGeneration

} // namespace Quelin
