#include "Ferrim/TextureMap/ImageTexture.h"

#include "Ferrim/ColorSpaces.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/ImageTextureCacheDetail.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/Lib.h"
#include "QuelinLibImage/ImageDecode.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace Quelin {

// Data sources are base-library types; this module registers them so that
// scenes holding texture maps can store and load them.
FERRIM_REGISTER_ENTITY(FileDataSource);
FERRIM_REGISTER_ENTITY(MemoryDataSource);

namespace {

/// Pixel format of float (or half) texels with the channels of `format`, RGB
/// when the conversion mixes channels.
PixelFormat floatFormatFor(PixelFormat format, bool keepMono, bool half) {
    int const channels = getChannelCount(format);
    bool const alpha = channels == 2 || channels == 4;
    if (keepMono && channels <= 2)
        return alpha ? (half ? PixelFormat::MonoAlphaHalf : PixelFormat::MonoAlphaFloat)
                     : (half ? PixelFormat::MonoHalf : PixelFormat::MonoFloat);
    return alpha ? (half ? PixelFormat::RgbaHalf : PixelFormat::RgbaFloat) : (half ? PixelFormat::RgbHalf : PixelFormat::RgbFloat);
}

/// `level` as float texels in linear light: 8-bit colour through `table` (or
/// scaled when null), alpha scaled, then `processor` on the colour channels.
/// Half levels stay half: converted in float, rounded back, with finite values
/// beyond the half range held at its largest (65504) rather than made infinite.
Image linearLevel(Image const& level, TextureSampling::Table8 const* table, ColorSpaces::Processor const* processor,
                  bool keepMono) {
    bool const half = getChannelType(level.getFormat()) == ChannelType::Half;
    PixelFormat const target = floatFormatFor(level.getFormat(), keepMono, half);
    int const channels = getChannelCount(target);
    bool const hasAlpha = channels == 2 || channels == 4;
    Image out = Image::makeForOverwrite(Image::Descriptor(level.getResolution(), target));
    int const width = level.getWidth();
    bool const eightBit = getChannelType(level.getFormat()) == ChannelType::UInt8;
    int const sourceChannels = getChannelCount(level.getFormat());
    bool const rawFloat = getChannelType(level.getFormat()) == ChannelType::Float && level.getFormat() != PixelFormat::Rgbe &&
                          level.getFormat() != PixelFormat::MonoWithExp && sourceChannels == channels;
    parallelFor(0, level.getHeight(), 16, [&](std::int64_t y0, std::int64_t y1) {
        Stack<float> rgba(std::size_t(width) * 4);
        Stack<float> halfRow(half ? std::size_t(width) * std::size_t(channels) : 0);
        for (int y = int(y0); y < int(y1); ++y) {
            std::byte* const outRow = out.getData() + std::int64_t(y) * out.getRowBytes();
            float* row = half ? halfRow.data() : reinterpret_cast<float*>(outRow);
            std::byte const* const src = level.getData() + std::int64_t(y) * level.getRowBytes();
            if (rawFloat) {
                std::memcpy(row, src, std::size_t(out.getRowBytes()));
            } else if (half && sourceChannels == channels) {
                convertHalvesToFloats(src, row, std::size_t(width) * std::size_t(channels));
            } else if (eightBit && table && sourceChannels == channels) {
                auto const* bytes = reinterpret_cast<std::uint8_t const*>(src);
                for (int i = 0, n = width * channels; i < n; ++i) {
                    bool const isAlpha = hasAlpha && i % channels == channels - 1;
                    row[i] = (*table)[std::size_t(bytes[i]) + (isAlpha ? 256 : 0)];
                }
            } else {
                for (int x = 0; x < width; ++x) {
                    RgbAlpha const c = level.getRgbAlpha(x, y);
                    float* p = row + std::size_t(x) * std::size_t(channels);
                    if (channels <= 2) p[0] = c.r;
                    else p[0] = c.r, p[1] = c.g, p[2] = c.b;
                    if (hasAlpha) p[channels - 1] = c.alpha;
                }
            }
            if (processor) {
                if (channels == 4) {
                    processor->applyRgba(row, std::size_t(width));
                } else if (channels == 3) {
                    processor->applyRgb(row, std::size_t(width));
                } else {
                    // Mono kept mono: the conversion is one curve for all channels.
                    for (int x = 0; x < width; ++x) rgba[std::size_t(x)] = row[std::size_t(x) * std::size_t(channels)];
                    Stack<float> rgb(std::size_t(width) * 3);
                    for (int x = 0; x < width; ++x) rgb[3 * std::size_t(x)] = rgb[3 * std::size_t(x) + 1] = rgb[3 * std::size_t(x) + 2] = rgba[std::size_t(x)];
                    processor->applyRgb(rgb.data(), std::size_t(width));
                    for (int x = 0; x < width; ++x) row[std::size_t(x) * std::size_t(channels)] = rgb[3 * std::size_t(x)];
                }
            }
            if (half) {
                constexpr float HALF_MAX = 65504.f;
                auto* const h = reinterpret_cast<std::uint16_t*>(outRow);
                for (std::size_t i = 0, n = halfRow.size(); i < n; ++i) {
                    float const v = row[i];
                    h[i] = floatToHalf(std::isfinite(v) ? std::clamp(v, -HALF_MAX, HALF_MAX) : v);
                }
            }
        }
    });
    return out;
}

/// Linear light back to 8-bit codes: the code whose table entry is nearest
/// (the table rises). A uniform grid over the table's range gives the first
/// candidate, a short scan the code. NaN takes code 0.
class Encoder8 {
public:
    explicit Encoder8(TextureSampling::Table8 const& table) {
        for (std::size_t i = 0; i < 255; ++i) mMidpoints[i] = 0.5f * (table[i] + table[i + 1]);
        mMidpoints[255] = std::numeric_limits<float>::infinity();
        float const top = std::max(table[255], 1e-30f);
        mScale = float(GRID) / top;
        for (int k = 0; k < GRID; ++k) {
            float const x = float(k) / mScale;
            mStart[std::size_t(k)] =
                std::uint8_t(std::upper_bound(mMidpoints.begin(), mMidpoints.begin() + 255, x) - mMidpoints.begin());
        }
    }
    std::uint8_t operator()(float x) const {
        if (!(x > mMidpoints[0])) return 0;
        float const g = x * mScale;
        unsigned code = mStart[g < float(GRID - 1) ? std::size_t(g) : std::size_t(GRID - 1)];
        while (x > mMidpoints[code]) ++code;  // stops at 255: its bound is infinite
        return std::uint8_t(code);
    }

private:
    static constexpr int GRID = 16384;
    StaticArray<float, 256> mMidpoints;
    StaticArray<std::uint8_t, GRID> mStart;
    float mScale = 1.f;
};

/// Float linear levels back to 8-bit codes; alpha is rounded.
Image encodeLevel(Image const& linear, PixelFormat format, Encoder8 const& encode) {
    int const channels = getChannelCount(format);
    bool const hasAlpha = channels == 2 || channels == 4;
    Image out = Image::makeForOverwrite(Image::Descriptor(linear.getResolution(), format));
    std::int64_t const count = std::int64_t(linear.getWidth()) * linear.getHeight() * channels;
    float const* src = reinterpret_cast<float const*>(linear.getData());
    auto* dst = reinterpret_cast<std::uint8_t*>(out.getData());
    parallelFor(0, count, 1 << 16, [&](std::int64_t i0, std::int64_t i1) {
        for (std::int64_t i = i0; i < i1; ++i)
            dst[i] = hasAlpha && i % channels == channels - 1
                         ? std::uint8_t(std::clamp(src[i] * 255.f + 0.5f, 0.f, 255.f))
                         : encode(src[i]);
    });
    return out;
}

/// One row of `downsample8` for N channels, the last one alpha when A.
template <int N, bool A>
void downsampleRow8(std::uint8_t const* r0, std::uint8_t const* r1, std::uint8_t* dst, int width, int sx,
                    float const* table, Encoder8 const& encode) {
    int const step = sx == 2 ? N : 0;
    for (int x = 0; x < width; ++x, r0 += sx * N, r1 += sx * N, dst += N) {
        for (int c = 0; c < (A ? N - 1 : N); ++c)
            dst[c] = encode((table[r0[c]] + table[r0[c + step]] + table[r1[c]] + table[r1[c + step]]) * 0.25f);
        if constexpr (A) {
            // A 1-wide block counts each texel twice.
            int const sum = r0[N - 1] + r0[N - 1 + step] + r1[N - 1] + r1[N - 1 + step];
            dst[N - 1] = std::uint8_t((sum + 2) / 4);
        }
    }
}

/// The next level of an 8-bit level whose sides are even (or 1): each texel
/// the mean of its 2 x 2 (or 2 x 1) block in linear light, stored as the
/// nearest code; alpha averaged as stored. The same averages as the exact-area
/// filter gives even sizes, without a float copy of the level.
Image downsample8(Image const& finer, TextureSampling::Table8 const& table, Encoder8 const& encode) {
    int const w = finer.getWidth(), h = finer.getHeight();
    int const sx = w > 1 ? 2 : 1, sy = h > 1 ? 2 : 1;
    Image out = Image::makeForOverwrite(Image::Descriptor(Pixel(std::max(1, w / 2), std::max(1, h / 2)), finer.getFormat()));
    auto const row = [&]() -> void (*)(std::uint8_t const*, std::uint8_t const*, std::uint8_t*, int, int, float const*,
                                       Encoder8 const&) {
        switch (getChannelCount(finer.getFormat())) {
        case 1: return &downsampleRow8<1, false>;
        case 2: return &downsampleRow8<2, true>;
        case 3: return &downsampleRow8<3, false>;
        default: return &downsampleRow8<4, true>;
        }
    }();
    parallelFor(0, out.getHeight(), 64, [&](std::int64_t y0, std::int64_t y1) {
        for (int y = int(y0); y < int(y1); ++y) {
            auto const* r0 = reinterpret_cast<std::uint8_t const*>(finer.getData() + std::int64_t(sy * y) * finer.getRowBytes());
            auto const* r1 = r0 + (sy == 2 ? finer.getRowBytes() : 0);
            auto* dst = reinterpret_cast<std::uint8_t*>(out.getData() + std::int64_t(y) * out.getRowBytes());
            row(r0, r1, dst, out.getWidth(), sx, table.data(), encode);
        }
    });
    return out;
}

} // namespace

ImageTexture::ImageTexture(EntityHolder<IDataSource const> source) : ImageTexture(std::move(source), String()) {}

ImageTexture::ImageTexture(EntityHolder<IDataSource const> source, String colorSpace)
    : mSource(std::move(source)), mRequestedColorSpace(std::move(colorSpace)) {
    std::lock_guard lock(mMutex);
    Stack<Image> levels;
    try {
        if (!mSource)
            throw Exception("No texture source specified");
        if (auto const* file = dynamic_cast<FileDataSource const*>(mSource.get()))
            mName = Io::pathToUtf8(file->getPhysicalPath());
        String const contentType = mSource->getContentType();
        if (contentType.empty())
            throw Exception("Texture source's content type not specified");
        if (isDevelopmentEnviro())
            DebugLogger("texture", "Quelin::ImageTexture::ImageTexture", "TextureMap/ImageTexture")("Loading",
                                                                                                   mSource->getDisplayName());
        ImageFormat const format = getImageFormatFromContentType(contentType, mSource->getDisplayName());
        if (mName.empty())
            mName = generateUuidAsString();
        if (auto const* file = dynamic_cast<FileDataSource const*>(mSource.get()); file && openTiled(file->getPhysicalPath())) {
            MipChainAccess::setId(mMips, generateUuidAsString());
            return;
        }
        auto stream = mSource->openStream();
        if (!stream)
            throw Exception(stream.error());
        TaskProgress progress;
        ImageColorTag tag;
        levels = makeImageLevels(**stream, format, progress, tag);
        if (!mRequestedColorSpace.empty() && !levels.empty())
            levels = toLinearLight(std::move(levels), tag);
        // A file's own chain is used as it stands; one that stops short of 1 x 1
        // (or a file without one) is completed by the filter.
        if (!levels.empty()) {
            Stack<Image> coarser = MipGeneration::buildMipChain(levels.back());
            for (auto& level : coarser) levels.push_back(std::move(level));
        }
    } catch (Exception const& e) {
        mError = e.what();
        levels.clear();
    } catch (std::bad_alloc const&) {
        // The decoder names the size it wanted; this is the mip chain's.
        levels.clear();
        mError = (mSource ? mSource->getDisplayName() : String("texture")) + ": not enough memory for the mip levels";
    }
    if (mName.empty())
        mName = generateUuidAsString();
    MipChainAccess::setLevels(mMips, std::move(levels));
    MipChainAccess::setOffloadable(mMips, mError.empty());
    MipChainAccess::setId(mMips, generateUuidAsString());
}

ImageTexture::~ImageTexture() {
    if (mTiled) mTileCache->forget(*mTiled);
}

bool ImageTexture::openTiled(Io::Path const& path) {
    // Plain files (not tiled, or unreadable: the decoder names the problem) take the whole-image road.
    auto file = TiledImageFile::open(path);
    if (!file) return false;
    TiledImageFile const& f = **file;
    // The map's level choice takes the last level as 1 x 1; a chain that
    // stops short is completed by decoding.
    TiledImageFile::Level const& last = f.getLevel(f.getLevelCount() - 1);
    if (f.getLevelCount() < 2 || last.shape.width != 1 || last.shape.height != 1) return false;
    if (!mRequestedColorSpace.empty()) {
        String const space = mRequestedColorSpace == ColorSpaces::AUTO
                                 ? ColorSpaces::spaceForFile(f.getColorSpaceTag(), f.getGammaTag(), f.getFormat())
                                 : mRequestedColorSpace;
        auto linear = ColorSpaces::sceneLinearSpace();
        if (!linear) return false;  // the decode reports it
        auto processor = ColorSpaces::makeConversion(space, *linear);
        if (!processor || !processor->isNoOp()) return false;
        mColorSpace = space;
    }
    // Writers put the coarsest level last: a file cut short loses that tile
    // first. Read now (it stays cached), so that such a file is refused at
    // load, by the decoder's error, rather than read as 0 tile by tile.
    TileCache& cache = ImageTextureCache::getTileCache();
    cache.sampleBilinear(**file, f.getLevelCount() - 1, 0.5f, 0.5f, {});
    if (!f.getError().empty()) {
        cache.forget(f);
        return false;
    }
    mTiled = std::move(*file);
    mTileCache = &cache;
    return true;
}

Stack<Image> ImageTexture::toLinearLight(Stack<Image> levels, ImageColorTag const& tag) {
    PixelFormat const format = levels.front().getFormat();
    mColorSpace = mRequestedColorSpace == ColorSpaces::AUTO ? ColorSpaces::spaceForFile(tag.space, tag.gamma, format)
                                                            : mRequestedColorSpace;
    auto linear = ColorSpaces::sceneLinearSpace();
    if (!linear) throw Exception(linear.error());
    auto processor = ColorSpaces::makeConversion(mColorSpace, *linear);
    if (!processor) throw Exception(processor.error());
    // Linear already: the file's texels and chain are used as they are.
    if (processor->isNoOp()) return levels;
    bool const eightBit = getChannelType(format) == ChannelType::UInt8;
    if (eightBit && processor->isPerChannel()) {
        // One curve for the three channels: a table of the 256 codes.
        float ramp[256 * 3];
        for (int i = 0; i < 256; ++i) ramp[3 * i] = ramp[3 * i + 1] = ramp[3 * i + 2] = float(i) / 255.f;
        processor->applyRgb(ramp, 256);
        bool same = true;
        for (int i = 0; i < 256; ++i) same = same && ramp[3 * i] == ramp[3 * i + 1] && ramp[3 * i] == ramp[3 * i + 2];
        if (same) {
            auto table = makeSharedPtr<TextureSampling::Table8>(TextureSampling::makeTable8(1.f));
            for (int i = 0; i < 256; ++i) (*table)[std::size_t(i)] = ramp[3 * i];
            mTexelTable = table;
            // Level 0 stays as stored; the coarser levels are averaged in
            // linear light and stored as the nearest codes. Even sides halve
            // directly; from the first odd side on, the exact-area filter
            // works on a float copy (small by then, or an odd-sized file).
            Encoder8 const encode(*table);
            Stack<Image> out;
            out.push_back(std::move(levels.front()));
            for (;;) {
                Image const& last = out.back();
                int const w = last.getWidth(), h = last.getHeight();
                if (w == 1 && h == 1) break;
                if ((w % 2 == 0 || w == 1) && (h % 2 == 0 || h == 1)) {
                    out.push_back(downsample8(last, *table, encode));
                    continue;
                }
                Stack<Image> coarser = MipGeneration::buildMipChain(linearLevel(last, table.get(), nullptr, true));
                for (Image const& level : coarser) out.push_back(encodeLevel(level, format, encode));
                break;
            }
            return out;
        }
    }
    // Anything else is converted once, here, to float texels (half ones stay
    // half: the file's own precision, and half the memory of float); the
    // chain is rebuilt from them.
    Stack<Image> out;
    out.push_back(linearLevel(levels.front(), nullptr, &*processor, processor->isPerChannel()));
    return out;
}

Image::Descriptor ImageTexture::getDescriptor() const {
    if (mTiled) {
        TextureSampling::LevelShape const& first = mTiled->getLevel(0).shape;
        return Image::Descriptor(Pixel(first.width, first.height), mTiled->getFormat());
    }
    return mMips.getLevelCount() > 0 ? mMips.getLevel(0).getDescriptor() : Image::Descriptor();
}

void ImageTexture::requireLevel(int level) const {
    // First test without the lock: the common case, nothing on disk.
    if (level >= mMips.getOffloadedCount())
        return;
    std::lock_guard lock(mMutex);
    MipMapManager::readBack(*this, level);
}

std::int64_t ImageTexture::getMemoryUsage() const { return mTiled ? mTiled->getMemoryUsage() : mMips.getMemoryUsage(); }
std::int64_t ImageTexture::getTotalSize() const { return mTiled ? mTiled->getTotalBytes() : mMips.getTotalSize(); }

bool ImageTexture::isOffloadable() const {
    std::lock_guard lock(mMutex);
    return mMips.isOffloadable();
}

void ImageTexture::setOffloadable(bool offloadable) {
    std::lock_guard lock(mMutex);
    MipChainAccess::setOffloadable(mMips, offloadable && hasPixels() && !mTiled);
}

} // namespace Quelin
