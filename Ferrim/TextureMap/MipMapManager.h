#pragma once
// Mip chains of image textures, and the out-of-core store that moves their
// finest levels to disk under a budget and reads them back on demand. The
// levels themselves are built by MipGeneration.h.
#include "Ferrim/Export.h"
#include "QuelinLib/Io.h"
#include "QuelinLibImage/Image.h"
#include <atomic>

namespace Quelin {

class ImageTexture;

/// The levels of one texture and how many of the finest are on disk.
/// Guarded by the owning texture's mutex, except `getOffloadedCount` and
/// `getPixels`, which lookups read without it.
class FERRIM_EXPORT MipChain : Noncopyable {
  public:
    MipChain() = default;
    ~MipChain();

    int getLevelCount() const { return int(mLevels.size()); }
    /// The level's descriptor is always valid; its pixels only when it is
    /// resident (index >= getOffloadedCount()).
    Image const& getLevel(int level) const { return mLevels[std::size_t(level)]; }
    /// The level's pixels, null while it is offloaded. Read without the lock
    /// inside a lookup guard (ImageTextureCacheDetail.h): a buffer seen there stays
    /// allocated until the guard ends, even if the level is offloaded meanwhile.
    std::byte const* getPixels(int level) const { return mPixels[std::size_t(level)].load(std::memory_order_seq_cst); }
    /// k: levels 0 to k - 1 are on disk and not in memory.
    int getOffloadedCount() const { return mOffloaded.load(std::memory_order_acquire); }
    bool isOffloadable() const { return mOffloadable; }
    /// Unique within the process's offload folder; names the texture's folder.
    String const& getId() const { return mId; }

    /// Bytes of the levels held in memory now.
    std::int64_t getMemoryUsage() const;
    /// Bytes of all levels, resident or not.
    std::int64_t getTotalSize() const;
    /// Bytes of the levels now on disk.
    std::int64_t getOffloadedSize() const;

  private:
    friend class ImageTexture;
    friend struct MipChainAccess;
    Stack<Image> mLevels;
    /// Each level's published pixel pointer (see `getPixels`).
    std::unique_ptr<std::atomic<std::byte const*>[]> mPixels;
    std::atomic<int> mOffloaded{0};
    bool mOffloadable = false;
    String mId;
    /// The folder holding the level files while any level is offloaded.
    Io::Path mFolder;
};

namespace MipMapManager {

/// The system's temporary folder joined with "OstrelRenderer/ImageTextureCache".
FERRIM_EXPORT Io::Path getDefaultOffloadDirectory();
/// The folder in use (the default until `updateCache` sets another).
FERRIM_EXPORT Io::Path getOffloadDirectory();

/// Sets the offload folder and the disk budget, then offloads the finest
/// levels of the cache's ready textures while the budget allows, or reads
/// levels back while more is on disk than the new budget allows. Budget:
/// unlimited, or `sizeGiB` GiB, capped so that `percent` per cent of the
/// folder's disk stays free; 0 when `enabled` is false or the folder is not
/// usable, in which case the error is "Unable to store files in the given
/// out-of-core textures folder: " and the folder. A size or percentage that is
/// NaN or infinite, a negative size or a percentage outside [0, 100] is refused
/// with an error and changes nothing. The same budget as before changes
/// nothing, unless levels failed to read back earlier (then it retries).
///
/// Thread safety: may be called at any time, also while render threads sample
/// the cache's textures. Lookups run inside a lookup guard; an offloaded
/// level's memory is freed only once every lookup that may have seen it has
/// ended (a lookup that sees a level gone reads it back under the texture's
/// mutex). Calls of `updateCache` itself are serialised.
FERRIM_EXPORT Expected<std::true_type, String> updateCache(bool enabled, Optional<float> sizeGiB, Optional<float> percent,
                                                          Io::Path folder);

/// The error of the last level file that could not be written (empty when
/// none failed since the last `updateCache`).
FERRIM_EXPORT String getLastWriteError();

/// The budget in bytes and the bytes now offloaded.
FERRIM_EXPORT std::int64_t getBudget();
FERRIM_EXPORT std::int64_t getOffloadedBytes();

/// Writes levels k, k + 1, ... of the texture to disk (finest first) while the
/// budget has room, freeing their memory once no lookup reads them. Takes the
/// texture's mutex; the caller must hold neither the cache's nor a texture's.
/// Returns the number of levels written. A write that fails (a full disk)
/// keeps the level in memory and is reported by `getLastWriteError`.
FERRIM_EXPORT int offload(ImageTexture const& texture, Io::Path const& folder);
/// Makes levels `level` and up resident: reads levels `level` to k - 1 back
/// from disk, removing their files. The caller holds the texture's mutex (see
/// `ImageTexture::requireLevel`). A missing, short or altered level file (each
/// carries a checksum) throws `Exception` "EOF while reading mip map data!"
/// naming the file; the levels still on disk stay counted as offloaded.
FERRIM_EXPORT void readBack(ImageTexture const& texture, int level);

/// Offloading and reloading time in milliseconds since the last reset.
struct Stats {
    std::int64_t offloadingMs = 0;
    std::int64_t reloadingMs = 0;
    std::int64_t levelsWritten = 0; ///< level files written
    std::int64_t levelsRead = 0;    ///< level files read back
};
FERRIM_EXPORT Stats getStats();
FERRIM_EXPORT void resetStats();
/// A text report of the cache's textures (sizes, the heaviest ones) that also
/// names the CSV file "textureStats.csv" it writes into the offload folder.
FERRIM_EXPORT String getStatsAndSaveReport();

/// Forgets the budget, the folder and the offloaded bytes (the cache's start
/// and stop).
FERRIM_EXPORT void resetOffloadState();

} // namespace MipMapManager
} // namespace Quelin
