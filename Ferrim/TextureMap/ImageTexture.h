#pragma once
// One image that maps sample: its pixels, its mip chain and, when decoding
// failed, the error text instead of pixels.
//
// A file that is tiled and carries its whole mip chain down to 1 x 1 (as
// `ferrim maketx` writes them) is not decoded: the texture holds the open
// file, and lookups read its tiles through the cache's tile cache
// (ImageTextureCache::getTileCache) when they first need them. Such a texture
// has no levels in memory (`getLevel` must not be called, `getTiledFile` is
// set) and is never offloaded. It is decoded whole instead when a colour space
// asks for more than reading its texels as stored: the mip levels are then
// averaged in linear light, as for any other file.
#include "Ferrim/Export.h"
#include "Ferrim/TextureMap/MipMapManager.h"
#include "Ferrim/TextureMap/TextureSampling.h"
#include "Ferrim/TextureMap/TileCache.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLibImage/Image.h"

namespace Quelin {

struct ImageColorTag;

class FERRIM_EXPORT ImageTexture : Noncopyable {
  public:
    /// Decodes the source and builds the mip chain (on the calling thread's
    /// scheduler). Never throws for bad input: an empty source, a source
    /// without content type, an unknown format or a file that fails to decode
    /// leave the texture without pixels and with the error text.
    explicit ImageTexture(EntityHolder<IDataSource const> source);
    /// Loaded for a colour space of the config ("auto": the file's own tag,
    /// else by channel type; see ColorSpaces::spaceForFile), converted to the
    /// config's scene-linear space. An 8-bit file whose conversion is one
    /// curve for all channels keeps its texels and gets a table (see
    /// `getTexelTable`); any other conversion is applied here, to float texels
    /// (half texels stay half; mono files become RGB when the conversion mixes
    /// channels). The mip
    /// levels are filtered in linear light. An unknown space is the texture's
    /// error. An empty `colorSpace` loads as the constructor above.
    ImageTexture(EntityHolder<IDataSource const> source, String colorSpace);
    /// Removes the texture's offloaded level files.
    ~ImageTexture();

    EntityHolder<IDataSource const> const& getSource() const { return mSource; }
    /// The file's path for file sources, otherwise a generated UUID.
    String const& getName() const { return mName; }
    /// Empty when loading succeeded and, for a tiled file, while every tile
    /// read so far could be read (a tile that could not is read as 0).
    String getError() const { return mError.empty() && mTiled ? mTiled->getError() : mError; }
    /// The colour space asked for ("auto", a name, or empty) and the one the
    /// file was read in (empty without one).
    String const& getRequestedColorSpace() const { return mRequestedColorSpace; }
    String const& getColorSpace() const { return mColorSpace; }
    /// With a colour space: the 8-bit table taking stored texels to linear
    /// light, or null when the stored texels are linear already.
    TextureSampling::Table8 const* getTexelTable() const { return mTexelTable.get(); }
    bool hasPixels() const { return mError.empty() && (mTiled || mMips.getLevelCount() > 0); }

    /// The tiled file read on demand, null for decoded textures.
    TiledImageFile* getTiledFile() const { return mTiled.get(); }
    /// The cache its tiles go through (set with the tiled file).
    TileCache* getTileCache() const { return mTileCache; }

    /// Level 0's descriptor; empty (0 x 0) when loading failed.
    Image::Descriptor getDescriptor() const;
    int getLevelCount() const { return mTiled ? mTiled->getLevelCount() : mMips.getLevelCount(); }
    /// See `MipChain::getLevel`: call `requireLevel` before reading pixels of a
    /// level that may be offloaded.
    Image const& getLevel(int level) const { return mMips.getLevel(level); }
    /// Levels 0 to k - 1 are on disk.
    int getOffloadedCount() const { return mMips.getOffloadedCount(); }
    /// Makes `level` and every coarser level resident, reading offloaded ones
    /// back from disk. Safe from many threads: one reads, the others wait.
    /// Throws `Exception` "EOF while reading mip map data!" on a short file.
    void requireLevel(int level) const;

    /// Bytes held in memory now (the resident levels; a tiled file's tiles in the cache).
    std::int64_t getMemoryUsage() const;
    /// Bytes of all levels, resident or not.
    std::int64_t getTotalSize() const;
    /// A tiled file's tile statistics and the most its tiles held; zero for decoded textures.
    TileStats getTileStats() const { return mTiled ? mTiled->getStats() : TileStats(); }
    std::int64_t getPeakTileMemory() const { return mTiled ? mTiled->getPeakMemoryUsage() : 0; }

    /// Whether the mip-map manager may move levels of this texture to disk
    /// (every texture with pixels may, unless a host pins it).
    bool isOffloadable() const;
    void setOffloadable(bool offloadable);

    /// Guards the offloaded count and the level buffers.
    Mutex& getMutex() const { return mMutex; }
    MipChain& getMipChain() const { return mMips; }

  private:
    /// The decoded levels converted for the requested colour space (see the constructor).
    Stack<Image> toLinearLight(Stack<Image> levels, ImageColorTag const& tag);
    /// Takes the file as tiles read on demand when it qualifies (see the top of this file).
    bool openTiled(Io::Path const& path);

    mutable Mutex mMutex;
    EntityHolder<IDataSource const> mSource;
    String mName;
    mutable MipChain mMips;
    String mError;
    String mRequestedColorSpace;
    String mColorSpace;
    SharedPtr<TextureSampling::Table8 const> mTexelTable;
    SharedPtr<TiledImageFile> mTiled;
    TileCache* mTileCache = nullptr;
};

} // namespace Quelin
