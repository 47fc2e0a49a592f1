#pragma once
// One decoded image that maps sample: its pixels, its mip chain and, when
// decoding failed, the error text instead of pixels.
#include "Ferrim/Export.h"
#include "Ferrim/TextureMap/MipMapManager.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLibImage/Image.h"

namespace Quelin {

class FERRIM_EXPORT ImageTexture : Noncopyable {
  public:
    /// Decodes the source and builds the mip chain (on the calling thread's
    /// scheduler). Never throws for bad input: an empty source, a source
    /// without content type, an unknown format or a file that fails to decode
    /// leave the texture without pixels and with the error text.
    explicit ImageTexture(EntityHolder<IDataSource const> source);
    /// Removes the texture's offloaded level files.
    ~ImageTexture();

    EntityHolder<IDataSource const> const& getSource() const { return mSource; }
    /// The file's path for file sources, otherwise a generated UUID.
    String const& getName() const { return mName; }
    /// Empty when loading succeeded.
    String const& getError() const { return mError; }
    bool hasPixels() const { return mError.empty() && mMips.getLevelCount() > 0; }

    /// Level 0's descriptor; empty (0 x 0) when loading failed.
    Image::Descriptor getDescriptor() const;
    int getLevelCount() const { return mMips.getLevelCount(); }
    /// See `MipChain::getLevel`: call `requireLevel` before reading pixels of a
    /// level that may be offloaded.
    Image const& getLevel(int level) const { return mMips.getLevel(level); }
    /// Levels 0 to k - 1 are on disk.
    int getOffloadedCount() const { return mMips.getOffloadedCount(); }
    /// Makes `level` and every coarser level resident, reading offloaded ones
    /// back from disk. Safe from many threads: one reads, the others wait.
    /// Throws `Exception` "EOF while reading mip map data!" on a short file.
    void requireLevel(int level) const;

    /// Bytes held in memory now (the resident levels).
    std::int64_t getMemoryUsage() const;
    /// Bytes of all levels, resident or not.
    std::int64_t getTotalSize() const;

    /// Whether the mip-map manager may move levels of this texture to disk
    /// (every texture with pixels may, unless a host pins it).
    bool isOffloadable() const;
    void setOffloadable(bool offloadable);

    /// Guards the offloaded count and the level buffers.
    Mutex& getMutex() const { return mMutex; }
    MipChain& getMipChain() const { return mMips; }

  private:
    mutable Mutex mMutex;
    EntityHolder<IDataSource const> mSource;
    String mName;
    mutable MipChain mMips;
    String mError;
};

} // namespace Quelin
