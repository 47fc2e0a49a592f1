#pragma once
// One decoded image that maps sample: its pixels, its mip chain and, when
// decoding failed, the error text instead of pixels.
#include "Ferrim/Export.h"
#include "Ferrim/TextureMap/MipMapManager.h"
#include "Ferrim/TextureMap/TextureSampling.h"
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
    /// Empty when loading succeeded.
    String const& getError() const { return mError; }
    /// The colour space asked for ("auto", a name, or empty) and the one the
    /// file was read in (empty without one).
    String const& getRequestedColorSpace() const { return mRequestedColorSpace; }
    String const& getColorSpace() const { return mColorSpace; }
    /// With a colour space: the 8-bit table taking stored texels to linear
    /// light, or null when the stored texels are linear already.
    TextureSampling::Table8 const* getTexelTable() const { return mTexelTable.get(); }
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
    /// The decoded levels converted for the requested colour space (see the constructor).
    Stack<Image> toLinearLight(Stack<Image> levels, ImageColorTag const& tag);

    mutable Mutex mMutex;
    EntityHolder<IDataSource const> mSource;
    String mName;
    mutable MipChain mMips;
    String mError;
    String mRequestedColorSpace;
    String mColorSpace;
    SharedPtr<TextureSampling::Table8 const> mTexelTable;
};

} // namespace Quelin
