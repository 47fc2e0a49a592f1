#pragma once
// Tiled, mip-mapped image files read a tile at a time, when a lookup first
// needs it, into one cache shared by every file under one memory cap. A scene
// whose textures exceed memory can then render: only the tiles its lookups
// touch are held, and the least recently used give way.
//
// Locking: the tiles are spread over shards, each with its own mutex held for
// a hash lookup, so threads hitting different tiles rarely meet and a hit never
// waits on one global lock. A lookup pins the tiles it reads. Eviction (an
// approximate least-recently-used order: the clock algorithm over all tiles,
// whose mutex only misses take) passes over pinned tiles, so a tile is never
// freed under a reader.
// Memory is counted when a tile's buffer is allocated, before its read, and
// the cache evicts down to the cap at once: the peak is the cap plus one tile
// per thread reading one. Only a cap smaller than the tiles running lookups
// pin (four a level, sixteen for anisotropic probes) is exceeded by those.
#include "Ferrim/Export.h"
#include "Ferrim/TextureMap/AnisotropicFilter.h"
#include "Ferrim/TextureMap/TextureSampling.h"
#include "QuelinLib/Io.h"

#include <atomic>
#include <memory>

namespace Quelin {

struct TileStats {
    std::int64_t hits = 0;        ///< tiles found in the cache (or being read by another thread)
    std::int64_t misses = 0;      ///< tiles read from their file
    std::int64_t bytesRead = 0;   ///< bytes of the tiles read
    std::int64_t bytesReread = 0; ///< of those, tiles read before and evicted since
};

/// The bytes one file's tiles hold in the cache now and at most so far. Shared
/// by the file and its tiles, so a tile may outlive its file.
struct TileUsage {
    std::atomic<std::int64_t> memory{0}, peak{0};
    void add(std::int64_t bytes) {
        std::int64_t const now = memory.fetch_add(bytes, std::memory_order_relaxed) + bytes;
        std::int64_t high = peak.load(std::memory_order_relaxed);
        while (now > high && !peak.compare_exchange_weak(high, now, std::memory_order_relaxed)) {
        }
    }
};

/// One tiled file with its levels. Tiles are read with the codec library, by
/// several threads at once (each reader has a handle of its own).
class FERRIM_EXPORT TiledImageFile : Noncopyable {
  public:
    struct Level {
        TextureSampling::LevelShape shape;
        int tilesX = 0, tilesY = 0;
        std::int64_t firstTile = 0; ///< index of the level's first tile among all the file's tiles
    };

    /// Opens a tiled file and checks what its header declares before anything
    /// is allocated: a regular file, tiles of 8 to 4096 pixels a side, at most
    /// 32 levels of at most the decoder's largest image, 1 to 4 channels (more
    /// keep the first four). Channels are held as stored (8 bits, 16
    /// bits, half); other types become float. Errors name the file.
    static Expected<SharedPtr<TiledImageFile>, String> open(Io::Path const& path);
    ~TiledImageFile();

    String const& getName() const { return mName; }
    PixelFormat getFormat() const { return mFormat; }
    int getLevelCount() const { return int(mLevels.size()); }
    Level const& getLevel(int level) const { return mLevels[std::size_t(level)]; }
    int getTileWidth() const { return mTileWidth; }
    int getTileHeight() const { return mTileHeight; }
    std::int64_t getTileBytes() const { return mTileBytes; }
    /// The whole file as decoded pixels, every level: what its tiles hold.
    std::int64_t getTotalBytes() const;
    TileStats getStats() const;
    /// Bytes of this file's tiles in the cache now, and the most they held.
    std::int64_t getMemoryUsage() const { return mUsage->memory.load(std::memory_order_relaxed); }
    std::int64_t getPeakMemoryUsage() const { return mUsage->peak.load(std::memory_order_relaxed); }
    /// What the file's header says of its colours ("oiio:ColorSpace", "oiio:Gamma").
    String const& getColorSpaceTag() const { return mColorSpaceTag; }
    float getGammaTag() const { return mGammaTag; }
    /// The first tile that could not be read, empty when none.
    String getError() const;

  private:
    friend class TileCache;
    struct Reader;
    TiledImageFile() = default;
    bool readTile(int level, int tx, int ty, std::byte* out);

    String mName;
    Io::Path mPath;
    PixelFormat mFormat = PixelFormat::RgbaFloat;
    int mTileWidth = 0, mTileHeight = 0, mFileChannels = 0;
    std::int64_t mTileBytes = 0;
    std::uint64_t mId = 0;
    String mColorSpaceTag;
    float mGammaTag = 0.f;
    SharedPtr<TileUsage> mUsage = makeSharedPtr<TileUsage>();
    Stack<Level> mLevels;
    /// Whether each tile was ever read: a second read is a re-read.
    std::unique_ptr<std::atomic<bool>[]> mEverRead;
    std::unique_ptr<Reader> mReader;
    std::atomic<std::int64_t> mHits{0}, mMisses{0}, mBytesRead{0}, mBytesReread{0};
};

class FERRIM_EXPORT TileCache : Noncopyable {
  public:
    /// `capacityBytes`: the memory the tiles may hold (at least one tile is
    /// always let in, so lookups progress under any cap).
    explicit TileCache(std::int64_t capacityBytes);
    ~TileCache();

    /// A smaller cap evicts down to it at once (pinned tiles excepted).
    void setCapacity(std::int64_t bytes);
    std::int64_t getCapacity() const { return mCapacity.load(std::memory_order_relaxed); }
    std::int64_t getMemoryUsage() const { return mMemory.load(std::memory_order_relaxed); }
    std::int64_t getPeakMemoryUsage() const { return mPeak.load(std::memory_order_relaxed); }
    TileStats getStats() const;

    /// The bilinear lookup at (u, v) in [0, 1]^2 (outside and NaN: the
    /// nearest border) of one level (clamped to the file's): the same
    /// arithmetic as the texture map's bilinear kernel over the whole level,
    /// so results equal those of the file decoded whole bit for bit. (r, g, b,
    /// a), integer channels scaled to [0, 1]. A tile that cannot be read
    /// counts as 0 and leaves its error with the file. Thread-safe.
    Float4 sampleBilinear(TiledImageFile& file, int level, float u, float v, TextureSampling::Addressing addressing);
    /// Bilinear on the two levels around L = log2(width) + (n - 1), blended
    /// as the texture map does; `width` is the footprint in [0, 1] units
    /// (NaN and below 1e-8 take the finest level, huge ones the coarsest).
    Float4 sampleTrilinear(TiledImageFile& file, float u, float v, float width, TextureSampling::Addressing addressing);
    /// Trilinear probes along the long axis of the footprint the derivatives
    /// span (AnisotropicFilter.h), at most `maxAnisotropy` of them.
    Float4 sampleAnisotropic(TiledImageFile& file, float u, float v, TextureSampling::UvDerivatives const& derivatives,
                             float maxAnisotropy, TextureSampling::Addressing addressing);

    /// The texture map's lookups, specialised for a held format, a texel
    /// conversion (TextureSampling.h) and a level kernel, picked once when an
    /// evaluator is built. Each gives what the map's kernels give on the file
    /// decoded whole, bit for bit, before the alpha bound.
    struct Sampler {
        /// Unfiltered: level 0; filtered: the two levels around
        /// L = log2(width) + (n - 1), blended (`sampleTrilinear`'s choice).
        Float4 (*isotropic)(TileCache& cache, TiledImageFile& file, float u, float v, float width, bool filtered,
                            TextureSampling::Addressing addressing, TextureSampling::TexelConversion const& conversion);
        /// The planned probes, each a bilinear trilinear lookup.
        Float4 (*anisotropic)(TileCache& cache, TiledImageFile& file, float u, float v,
                              TextureSampling::AnisotropicProbes const& probes, TextureSampling::Addressing addressing,
                              TextureSampling::TexelConversion const& conversion);
    };
    /// Table8 applies to 8-bit formats only; Anisotropic takes the bilinear kernel.
    static Sampler selectSampler(PixelFormat format, TextureSampling::Conversion conversion, InterpolationMode mode);

    /// Frees the file's tiles (a texture that is released): their memory
    /// returns to the cap at once. No lookup of the file may run.
    void forget(TiledImageFile const& file);

  private:
    struct Tile;
    struct Shard;
    struct Session;
    struct Kernels;
    friend struct Kernels;
    /// The tile pinned, or null when it could not be read.
    Tile* acquire(TiledImageFile& file, int level, int tx, int ty);
    void makeRoom();
    bool evictOne();
    Shard& shardOf(std::uint64_t fileId, std::int64_t index);

    static constexpr int SHARDS = 64;
    std::unique_ptr<Shard[]> mShards;
    std::atomic<std::int64_t> mCapacity;
    std::atomic<std::int64_t> mMemory{0}, mPeak{0};
    std::atomic<std::int64_t> mHits{0}, mMisses{0}, mBytesRead{0}, mBytesReread{0};
    /// The clock: every tile, in the order they came, and its hand. Taken by
    /// misses and eviction only, never by a hit.
    Mutex mClockMutex;
    Stack<Tile*> mRing;
    std::size_t mHand = 0;
};

} // namespace Quelin
