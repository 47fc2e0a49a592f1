#include "Ferrim/TextureMap/TileCache.h"

#include <OpenImageIO/imageio.h>
#include <bit>
#include <limits>
#include <thread>
#include <unordered_map>

#include "QuelinLib/ColorMath.h"
#include "QuelinLib/MessageText.h"
#include "QuelinLibImage/ImageDecode.h"
#include "QuelinLibImage/OiioPixelFormats.h"

namespace Quelin {

namespace {

using TextureSampling::Addressing;
using TextureSampling::Address;
using TextureSampling::AnisotropicProbes;
using TextureSampling::Conversion;
using TextureSampling::TexelConversion;

constexpr int MAX_LEVELS = 32;
constexpr int MIN_TILE_SIDE = 8, MAX_TILE_SIDE = 4096;

std::atomic<std::uint64_t> sNextFileId{1};

/// Opened as the decoder opens files: alpha kept as stored, not premultiplied.
std::unique_ptr<OIIO::ImageInput> openInput(String const& name) {
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    return OIIO::ImageInput::open(name, &config);
}

} // namespace

// ------------------------------------------------------------------ the file

/// Open handles of the file, one per thread reading at a time: a handle
/// decodes one tile at a time, and reads of different tiles need not wait.
struct TiledImageFile::Reader {
    Mutex mutex;
    Stack<std::unique_ptr<OIIO::ImageInput>> idle;
    String error;
};

Expected<SharedPtr<TiledImageFile>, String> TiledImageFile::open(Io::Path const& path) {
    String const name = Io::pathToUtf8(path);
    auto const fail = [&](String const& why) { return makeError("Could not open tiled texture \"" + name + "\": " + singleLine(why)); };
    // The regular-file check of the library's streams: no FIFO or device.
    if (auto stream = Io::FileInputStream::open(path); !stream)
        return makeError(stream.error());
    auto input = openInput(name);
    if (!input) return fail(OIIO::geterror());

    auto file = SharedPtr<TiledImageFile>(new TiledImageFile());
    file->mName = name;
    file->mPath = path;
    OIIO::ImageSpec const& first = input->spec();
    if (first.tile_width == 0) return fail("the file is not tiled (ferrim maketx writes tiled files)");
    if (first.tile_width < MIN_TILE_SIDE || first.tile_width > MAX_TILE_SIDE || first.tile_height < MIN_TILE_SIDE ||
        first.tile_height > MAX_TILE_SIDE || first.tile_depth > 1)
        return fail("tiles of " + std::to_string(first.tile_width) + " x " + std::to_string(first.tile_height) +
                    " pixels (8 to 4096 a side are read)");
    if (first.nchannels < 1) return fail("the file has no channels");
    file->mFileChannels = first.nchannels;
    file->mFormat = pixelFormatFor(first);  // 8 bits, 16 bits and half as stored
    file->mTileWidth = first.tile_width;
    file->mTileHeight = first.tile_height;
    file->mTileBytes = std::int64_t(first.tile_width) * first.tile_height * getPixelBytes(file->mFormat);
    file->mColorSpaceTag = first.get_string_attribute("oiio:ColorSpace");
    file->mGammaTag = first.get_float_attribute("oiio:Gamma", 0.f);

    std::int64_t tiles = 0;
    for (int m = 0; input->seek_subimage(0, m); ++m) {
        if (m == MAX_LEVELS) return fail("more than " + std::to_string(MAX_LEVELS) + " mip levels");
        OIIO::ImageSpec const& spec = input->spec();
        if (auto size = checkImageSize(spec.width, spec.height, file->mFormat, name); !size) return makeError(size.error());
        if (spec.tile_width != first.tile_width || spec.tile_height != first.tile_height || spec.nchannels != first.nchannels ||
            spec.format != first.format || spec.depth > 1)
            return fail("level " + std::to_string(m) + " differs from level 0 in its tiles or channels");
        Level level;
        level.shape = TextureSampling::LevelShape::of(spec.width, spec.height, file->mFormat);
        // Within one tile the rows are a tile wide.
        level.shape.rowBytes = std::int64_t(file->mTileWidth) * getPixelBytes(file->mFormat);
        level.tilesX = (spec.width + file->mTileWidth - 1) / file->mTileWidth;
        level.tilesY = (spec.height + file->mTileHeight - 1) / file->mTileHeight;
        level.firstTile = tiles;
        tiles += std::int64_t(level.tilesX) * level.tilesY;
        file->mLevels.push_back(level);
    }
    // The seek past the last level left an error on the handle; OpenImageIO
    // keeps such errors per thread and would hand this one to a later reader.
    (void)input->geterror();
    file->mEverRead = std::make_unique<std::atomic<bool>[]>(std::size_t(tiles));
    file->mReader = std::make_unique<Reader>();
    file->mReader->idle.push_back(std::move(input));
    file->mId = sNextFileId.fetch_add(1, std::memory_order_relaxed);
    return file;
}

TiledImageFile::~TiledImageFile() = default;

std::int64_t TiledImageFile::getTotalBytes() const {
    std::int64_t bytes = 0;
    for (Level const& l : mLevels) bytes += std::int64_t(l.shape.width) * l.shape.height * getPixelBytes(mFormat);
    return bytes;
}

TileStats TiledImageFile::getStats() const {
    return {mHits.load(std::memory_order_relaxed), mMisses.load(std::memory_order_relaxed),
            mBytesRead.load(std::memory_order_relaxed), mBytesReread.load(std::memory_order_relaxed)};
}

String TiledImageFile::getError() const {
    std::lock_guard lock(mReader->mutex);
    return mReader->error;
}

bool TiledImageFile::readTile(int level, int tx, int ty, std::byte* out) {
    std::unique_ptr<OIIO::ImageInput> input;
    {
        std::lock_guard lock(mReader->mutex);
        if (!mReader->idle.empty()) {
            input = std::move(mReader->idle.back());
            mReader->idle.pop_back();
        }
    }
    String error;
    if (!input) {
        input = openInput(mName);
        if (!input) error = OIIO::geterror();
    }
    if (input) {
        int const channels = getChannelCount(mFormat);
        bool const ok = input->read_tiles(0, level, tx * mTileWidth, std::min((tx + 1) * mTileWidth, mLevels[std::size_t(level)].shape.width),
                                          ty * mTileHeight, std::min((ty + 1) * mTileHeight, mLevels[std::size_t(level)].shape.height),
                                          0, 1, 0, channels, typeDescOf(getChannelType(mFormat)), out, getPixelBytes(mFormat),
                                          std::int64_t(mTileWidth) * getPixelBytes(mFormat));
        if (!ok) error = input->geterror();
    }
    std::lock_guard lock(mReader->mutex);
    if (input) mReader->idle.push_back(std::move(input));
    if (error.empty()) return true;
    if (mReader->error.empty())
        mReader->error = "Could not read a tile of \"" + mName + "\" (level " + std::to_string(level) + ", tile " +
                         std::to_string(tx) + ", " + std::to_string(ty) + "): " + singleLine(error);
    return false;
}

// ----------------------------------------------------------------- the cache

struct TileCache::Tile {
    enum State : int { Loading, Ready, Failed };
    std::uint64_t fileId = 0;
    std::int64_t index = 0;
    std::int64_t bytes = 0;
    SharedPtr<TileUsage> usage;  ///< the file's
    std::unique_ptr<std::byte[]> pixels;
    std::atomic<int> state{Loading};
    std::atomic<int> pins{0};
    std::atomic<bool> referenced{true};
};

namespace {
struct TileKey {
    std::uint64_t fileId;
    std::int64_t index;
    bool operator==(TileKey const&) const = default;
};
struct TileKeyHash {
    std::size_t operator()(TileKey const& k) const {
        std::uint64_t h = k.fileId * 0x9E3779B97F4A7C15ull ^ std::uint64_t(k.index) * 0xC2B2AE3D27D4EB4Full;
        return std::size_t(h ^ (h >> 29));
    }
};
} // namespace

struct alignas(64) TileCache::Shard {
    Mutex mutex;
    std::unordered_map<TileKey, std::unique_ptr<Tile>, TileKeyHash> tiles;
};

TileCache::Shard& TileCache::shardOf(std::uint64_t fileId, std::int64_t index) {
    return mShards[TileKeyHash()(TileKey{fileId, index}) % SHARDS];
}

TileCache::TileCache(std::int64_t capacityBytes)
    : mShards(std::make_unique<Shard[]>(SHARDS)), mCapacity(std::max<std::int64_t>(0, capacityBytes)) {}

TileCache::~TileCache() = default;

void TileCache::setCapacity(std::int64_t bytes) {
    mCapacity.store(std::max<std::int64_t>(0, bytes), std::memory_order_relaxed);
    makeRoom();
}

TileStats TileCache::getStats() const {
    TileStats total;
    total.hits = mHits.load(std::memory_order_relaxed);
    total.misses = mMisses.load(std::memory_order_relaxed);
    total.bytesRead = mBytesRead.load(std::memory_order_relaxed);
    total.bytesReread = mBytesReread.load(std::memory_order_relaxed);
    return total;
}

bool TileCache::evictOne() {
    std::unique_ptr<Tile> victim;
    {
        std::lock_guard clock(mClockMutex);
        // Two sweeps: the first clears the marks of tiles used since the hand
        // last passed, the second finds one of them unused.
        for (std::size_t step = 0, n = mRing.size(); step < 2 * n && !victim; ++step) {
            if (mHand >= mRing.size()) mHand = 0;
            Tile* const t = mRing[mHand];
            if (t->pins.load(std::memory_order_acquire) > 0 || t->state.load(std::memory_order_acquire) == Tile::Loading ||
                t->referenced.exchange(false, std::memory_order_relaxed)) {
                ++mHand;
                continue;
            }
            // Pins are taken under the shard's mutex: none there, none until it is out.
            Shard& shard = shardOf(t->fileId, t->index);
            std::lock_guard lock(shard.mutex);
            if (t->pins.load(std::memory_order_acquire) > 0) {
                ++mHand;
                continue;
            }
            auto found = shard.tiles.find(TileKey{t->fileId, t->index});
            victim = std::move(found->second);
            shard.tiles.erase(found);
            mRing[mHand] = mRing.back();
            mRing.pop_back();
        }
    }
    if (!victim) return false;
    mMemory.fetch_sub(victim->bytes, std::memory_order_relaxed);
    victim->usage->memory.fetch_sub(victim->bytes, std::memory_order_relaxed);
    return true;
}

void TileCache::forget(TiledImageFile const& file) {
    Stack<std::unique_ptr<Tile>> freed;  // freed after the locks
    {
        std::lock_guard clock(mClockMutex);
        for (std::size_t i = 0; i < mRing.size();) {
            Tile* const t = mRing[i];
            if (t->fileId != file.mId) {
                ++i;
                continue;
            }
            Shard& shard = shardOf(t->fileId, t->index);
            std::lock_guard lock(shard.mutex);
            auto found = shard.tiles.find(TileKey{t->fileId, t->index});
            freed.push_back(std::move(found->second));
            shard.tiles.erase(found);
            mRing[i] = mRing.back();
            mRing.pop_back();
        }
    }
    for (auto const& t : freed) {
        mMemory.fetch_sub(t->bytes, std::memory_order_relaxed);
        t->usage->memory.fetch_sub(t->bytes, std::memory_order_relaxed);
    }
}

void TileCache::makeRoom() {
    // Stops when every tile left is pinned or being read.
    while (mMemory.load(std::memory_order_relaxed) > mCapacity.load(std::memory_order_relaxed) && evictOne()) {
    }
}

TileCache::Tile* TileCache::acquire(TiledImageFile& file, int level, int tx, int ty) {
    TiledImageFile::Level const& l = file.mLevels[std::size_t(level)];
    TileKey const key{file.mId, l.firstTile + std::int64_t(ty) * l.tilesX + tx};
    Shard& shard = shardOf(key.fileId, key.index);
    Tile* tile;
    bool load = false;
    {
        std::lock_guard lock(shard.mutex);
        auto [it, inserted] = shard.tiles.try_emplace(key);
        if (inserted) {
            it->second = std::make_unique<Tile>();
            it->second->fileId = key.fileId;
            it->second->index = key.index;
            it->second->usage = file.mUsage;
            load = true;
        }
        tile = it->second.get();
        tile->pins.fetch_add(1, std::memory_order_relaxed);
        tile->referenced.store(true, std::memory_order_relaxed);
    }
    if (!load) {
        file.mHits.fetch_add(1, std::memory_order_relaxed);
        mHits.fetch_add(1, std::memory_order_relaxed);
        // Another thread is reading it: reads take far longer than a yield.
        int state;
        while ((state = tile->state.load(std::memory_order_acquire)) == Tile::Loading) std::this_thread::yield();
        if (state == Tile::Ready) return tile;
        tile->pins.fetch_sub(1, std::memory_order_release);
        return nullptr;
    }

    {
        // On the clock only after the shard's mutex is let go: eviction takes
        // the clock's mutex first, then a shard's.
        std::lock_guard clock(mClockMutex);
        mRing.push_back(tile);
    }
    std::int64_t const bytes = file.mTileBytes;
    std::int64_t const now = mMemory.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    file.mUsage->add(bytes);
    makeRoom();
    std::int64_t peak = mPeak.load(std::memory_order_relaxed);
    while (now > peak && !mPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
    bool ok = false;
    try {
        tile->pixels.reset(new std::byte[std::size_t(bytes)]);
        tile->bytes = bytes;
        ok = file.readTile(level, tx, ty, tile->pixels.get());
    } catch (std::bad_alloc const&) {
        ok = false;
    }
    if (!ok) {
        // Kept as failed, holding nothing, so that lookups do not retry it.
        tile->pixels.reset();
        tile->bytes = 0;
        mMemory.fetch_sub(bytes, std::memory_order_relaxed);
        file.mUsage->memory.fetch_sub(bytes, std::memory_order_relaxed);
    } else {
        file.mMisses.fetch_add(1, std::memory_order_relaxed);
        file.mBytesRead.fetch_add(bytes, std::memory_order_relaxed);
        mMisses.fetch_add(1, std::memory_order_relaxed);
        mBytesRead.fetch_add(bytes, std::memory_order_relaxed);
        if (file.mEverRead[std::size_t(key.index)].exchange(true, std::memory_order_relaxed)) {
            file.mBytesReread.fetch_add(bytes, std::memory_order_relaxed);
            mBytesReread.fetch_add(bytes, std::memory_order_relaxed);
        }
    }
    tile->state.store(ok ? Tile::Ready : Tile::Failed, std::memory_order_release);
    if (ok) return tile;
    tile->pins.fetch_sub(1, std::memory_order_release);
    return nullptr;
}


/// The tiles a lookup reads, pinned until it ends; neighbouring probes of one
/// lookup find their tiles here without the cache's locks.
struct TileCache::Session : Noncopyable {
    static constexpr int CAPACITY = 16;
    struct Held {
        TiledImageFile const* file;
        std::int64_t index;
        std::byte const* pixels;
    };
    Held held[CAPACITY];
    Tile* pinned[CAPACITY];
    int seen = 0, pins = 0;
    void release() {
        for (int i = 0; i < pins; ++i) pinned[i]->pins.fetch_sub(1, std::memory_order_release);
        seen = pins = 0;
    }
    ~Session() { release(); }
};

/// The level kernels of TextureSampling.h over tiles: the same taps, weights
/// and order of arithmetic, each texel found in its tile.
struct TileCache::Kernels {
    /// One level of one file as a lookup's kernel sees it.
    struct LevelTiles {
        TileCache& cache;
        Session& session;
        TiledImageFile& file;
        int level;
        TiledImageFile::Level const& lv;

        /// The pixels of tile (tx, ty), null when it could not be read.
        std::byte const* tile(int tx, int ty) const {
            std::int64_t const index = lv.firstTile + std::int64_t(ty) * lv.tilesX + tx;
            for (int i = 0; i < session.seen; ++i)
                if (session.held[i].index == index && session.held[i].file == &file) return session.held[i].pixels;
            Tile* const t = cache.acquire(file, level, tx, ty);
            if (t) session.pinned[session.pins++] = t;
            std::byte const* const pixels = t ? t->pixels.get() : nullptr;
            session.held[session.seen++] = {&file, index, pixels};
            return pixels;
        }
        /// Texel (px, py) of the level, inside tile (tx, ty) whose pixels are `t`.
        template <PixelFormat F, Conversion C>
        Float4 texel(std::byte const* t, int px, int py, int tx, int ty, TexelConversion const& cv) const {
            if (!t) return Float4();
            return TextureSampling::Detail::texel<F, C>(t + std::int64_t(py - ty * file.mTileHeight) * lv.shape.rowBytes +
                                                            std::int64_t(px - tx * file.mTileWidth) * TextureSampling::Detail::bytesOf(F),
                                                        cv);
        }
        template <PixelFormat F, Conversion C> Float4 texel(int px, int py, TexelConversion const& cv) const {
            int const tx = px / file.mTileWidth, ty = py / file.mTileHeight;
            return texel<F, C>(tile(tx, ty), px, py, tx, ty, cv);
        }
    };

    static LevelTiles levelOf(TileCache& cache, Session& session, TiledImageFile& file, int level) {
        level = level < 0 ? 0 : (level < file.getLevelCount() ? level : file.getLevelCount() - 1);
        // Room for this lookup's taps (four tiles at most); earlier lookups' texels are consumed.
        if (session.seen > Session::CAPACITY - 4) session.release();
        return {cache, session, file, level, file.mLevels[std::size_t(level)]};
    }

    template <PixelFormat F, Conversion C>
    static Float4 bilinear(LevelTiles const& t, float u, float v, Addressing a, TexelConversion const& cv) {
        TextureSampling::LevelShape const& l = t.lv.shape;
        auto const [x0, x1, y0, y1, fx, fy] = TextureSampling::Detail::bilinearTaps(l, u, v, a);
        // Mostly all four taps lie in one tile: one search for them.
        int const tx0 = x0 / t.file.mTileWidth, tx1 = x1 / t.file.mTileWidth;
        int const ty0 = y0 / t.file.mTileHeight, ty1 = y1 / t.file.mTileHeight;
        std::byte const* const t00 = t.tile(tx0, ty0);
        std::byte const* const t01 = tx1 == tx0 ? t00 : t.tile(tx1, ty0);
        std::byte const* const t10 = ty1 == ty0 ? t00 : t.tile(tx0, ty1);
        std::byte const* const t11 = ty1 == ty0 ? t01 : (tx1 == tx0 ? t10 : t.tile(tx1, ty1));
        return TextureSampling::Detail::blendBilinear(
            t.template texel<F, C>(t00, x0, y0, tx0, ty0, cv), t.template texel<F, C>(t01, x1, y0, tx1, ty0, cv),
            t.template texel<F, C>(t10, x0, y1, tx0, ty1, cv), t.template texel<F, C>(t11, x1, y1, tx1, ty1, cv), fx, fy);
    }

    template <PixelFormat F, Conversion C>
    static Float4 nearest(LevelTiles const& t, float u, float v, TexelConversion const& cv) {
        TextureSampling::LevelShape const& l = t.lv.shape;
        int x = int(u * l.widthF), y = int((1.f - v) * l.heightF);
        x = x < l.width ? x : l.width - 1;
        y = y < l.height ? y : l.height - 1;
        return t.template texel<F, C>(x, y, cv);
    }

    template <PixelFormat F, Conversion C>
    static Float4 bicubic(LevelTiles const& t, float u, float v, Addressing a, TexelConversion const& cv) {
        TextureSampling::LevelShape const& l = t.lv.shape;
        float const x = u * l.widthF - 0.5f, y = (1.f - v) * l.heightF - 0.5f;
        float const fx0 = std::floor(x), fy0 = std::floor(y);
        int const x0 = int(fx0), y0 = int(fy0);
        float wx[4], wy[4];
        TextureSampling::Detail::bsplineWeights(x - fx0, wx);
        TextureSampling::Detail::bsplineWeights(y - fy0, wy);
        int xs[4], ys[4];
        for (int k = 0; k < 4; ++k) {
            xs[k] = TextureSampling::Detail::address(x0 - 1 + k, l.width, a.u);
            ys[k] = TextureSampling::Detail::address(y0 - 1 + k, l.height, a.v);
        }
        Float4 sum;
        for (int j = 0; j < 4; ++j) {
            Float4 line = t.template texel<F, C>(xs[0], ys[j], cv) * Float4(wx[0]);
            for (int i = 1; i < 4; ++i) line += t.template texel<F, C>(xs[i], ys[j], cv) * Float4(wx[i]);
            sum += line * Float4(wy[j]);
        }
        return sum;
    }

    /// One level's kernel at (u, v), clamped into [0, 1] (NaN: 0) as the map's coordinates are.
    template <PixelFormat F, Conversion C, InterpolationMode I>
    static Float4 level(TileCache& cache, Session& session, TiledImageFile& file, int level, float u, float v, Addressing a,
                        TexelConversion const& cv) {
        u = u >= 0.f ? (u <= 1.f ? u : 1.f) : 0.f;
        v = v >= 0.f ? (v <= 1.f ? v : 1.f) : 0.f;
        LevelTiles const t = levelOf(cache, session, file, level);
        if constexpr (I == InterpolationMode::Nearest) return nearest<F, C>(t, u, v, cv);
        else if constexpr (I == InterpolationMode::Bicubic) return bicubic<F, C>(t, u, v, a, cv);
        else return bilinear<F, C>(t, u, v, a, cv);
    }

    template <PixelFormat F, Conversion C, InterpolationMode I>
    static Float4 trilinear(TileCache& cache, Session& session, TiledImageFile& file, float u, float v, float width,
                            Addressing a, TexelConversion const& cv) {
        int const top = file.getLevelCount() - 1;
        float w = width;
        if (!(w >= 1e-8f)) w = 1e-8f;  // NaN too
        // The level choice of the texture map: L = log2(w) + (n - 1).
        std::uint32_t const bits = std::bit_cast<std::uint32_t>(w);
        int const whole = int(bits >> 23) - 127 + top;
        if (whole < 0) return level<F, C, I>(cache, session, file, 0, u, v, a, cv);
        if (whole >= top) return level<F, C, I>(cache, session, file, top, u, v, a, cv);
        float const fraction = log2Approx(std::bit_cast<float>((bits & 0x007FFFFFu) | 0x3F800000u));
        Float4 const finer = level<F, C, I>(cache, session, file, whole, u, v, a, cv);
        return finer + (level<F, C, I>(cache, session, file, whole + 1, u, v, a, cv) - finer) * Float4(fraction);
    }

    template <PixelFormat F, Conversion C, InterpolationMode I>
    static Float4 isotropic(TileCache& cache, TiledImageFile& file, float u, float v, float width, bool filtered, Addressing a,
                            TexelConversion const& cv) {
        Session session;
        if (!filtered) return level<F, C, I>(cache, session, file, 0, u, v, a, cv);
        return trilinear<F, C, I>(cache, session, file, u, v, width, a, cv);
    }

    template <PixelFormat F, Conversion C>
    static Float4 anisotropic(TileCache& cache, TiledImageFile& file, float u, float v, AnisotropicProbes const& probes,
                              Addressing a, TexelConversion const& cv) {
        Session session;
        return TextureSampling::filterAnisotropic(u, v, probes, [&](float pu, float pv, float width) {
            return trilinear<F, C, InterpolationMode::Bilinear>(cache, session, file, TextureSampling::wrapProbe(pu, a.u),
                                                                TextureSampling::wrapProbe(pv, a.v), width, a, cv);
        });
    }
};

TileCache::Sampler TileCache::selectSampler(PixelFormat format, Conversion conversion, InterpolationMode mode) {
    return TextureSampling::dispatch(format, conversion, mode, []<PixelFormat F, Conversion C, InterpolationMode I>() {
        return Sampler{&Kernels::isotropic<F, C, I>, &Kernels::anisotropic<F, C>};
    });
}

Float4 TileCache::sampleBilinear(TiledImageFile& file, int level, float u, float v, Addressing addressing) {
    Session session;
    return TextureSampling::dispatch(file.mFormat, Conversion::None, InterpolationMode::Bilinear,
                                     [&]<PixelFormat F, Conversion C, InterpolationMode I>() {
                                         return Kernels::level<F, C, I>(*this, session, file, level, u, v, addressing, {});
                                     });
}

Float4 TileCache::sampleTrilinear(TiledImageFile& file, float u, float v, float width, Addressing addressing) {
    return selectSampler(file.mFormat, Conversion::None, InterpolationMode::Bilinear)
        .isotropic(*this, file, u, v, width, true, addressing, {});
}

Float4 TileCache::sampleAnisotropic(TiledImageFile& file, float u, float v, TextureSampling::UvDerivatives const& derivatives,
                                    float maxAnisotropy, Addressing addressing) {
    return selectSampler(file.mFormat, Conversion::None, InterpolationMode::Bilinear)
        .anisotropic(*this, file, u, v, TextureSampling::planProbes(derivatives, maxAnisotropy), addressing, {});
}

} // namespace Quelin
