#pragma once
// The process-wide image-texture cache: one decoded texture per distinct image
// source, shared by every map that uses it, decoded on the library's loader
// thread ("Ostrel.ImageTextureCache.Loader") or on demand by whoever needs it
// first. Started and stopped by the library's start-up hook "Image Texture cache".
#include "Ferrim/Export.h"
#include "Ferrim/TextureMap/ImageTexture.h"
#include <concepts>
#include <type_traits>

namespace Quelin::ImageTextureCache {

class CacheRecord;

/// A handle on a requested texture; shares ownership of its cache record.
class FERRIM_EXPORT FutureTexture {
  public:
    FutureTexture() = default;
    explicit FutureTexture(SharedPtr<CacheRecord> record) : mRecord(std::move(record)) {}

    bool isEmpty() const { return !mRecord; }
    /// Whether the texture is built and its callbacks have run; never blocks.
    bool isReady() const;
    /// The texture, built on the calling thread if nobody has yet (a build in
    /// progress on the loader is waited for, not repeated). The reference keeps
    /// the record alive. Empty for an empty handle.
    SharedPtr<ImageTexture> getImageTexture() const;

  private:
    SharedPtr<CacheRecord> mRecord;
};

/// Returns at once. `onReady` (may be empty) is called with the texture exactly
/// once: on the thread that builds it, or at once on this thread if it is ready.
/// A ready texture whose source changed since (time stamp) is decoded again;
/// references handed out before keep the old pixels.
FERRIM_EXPORT FutureTexture getOrCreate(EntityHolder<IDataSource const> const& source,
                                        Function<void(ImageTexture const&)> onReady);
/// The same for the texture loaded in a colour space (see ImageTexture's
/// constructor): one texture per source and colour space, so maps of one file
/// in different spaces never share texels. An empty `colorSpace` is the plain load.
FERRIM_EXPORT FutureTexture getOrCreateInColorSpace(EntityHolder<IDataSource const> const& source, String const& colorSpace,
                                        Function<void(ImageTexture const&)> onReady);
FERRIM_EXPORT SharedPtr<ImageTexture> getOrCreateInColorSpace(EntityHolder<IDataSource const> const& source,
                                                              String const& colorSpace);
/// Blocking: the texture, built on this thread when the loader has not got to it.
/// An empty source gives a texture with the error "No texture source specified".
FERRIM_EXPORT SharedPtr<ImageTexture> getOrCreate(EntityHolder<IDataSource const> const& source);

/// The same for a source held as a plain shared pointer (`FileDataSource::make`).
template <typename Source>
requires std::derived_from<Source, IDataSource> FutureTexture getOrCreate(SharedPtr<Source> const& source,
                                                                          Function<void(ImageTexture const&)> onReady) {
    return getOrCreate(EntityHolder<IDataSource const>(SharedPtr<IDataSource const>(source)), std::move(onReady));
}
template <typename Source>
requires std::derived_from<Source, IDataSource> SharedPtr<ImageTexture> getOrCreate(SharedPtr<Source> const& source) {
    return getOrCreate(EntityHolder<IDataSource const>(SharedPtr<IDataSource const>(source)));
}

template <typename Source>
requires std::derived_from<Source, IDataSource> SharedPtr<ImageTexture> getOrCreateInColorSpace(SharedPtr<Source> const& source,
                                                                                              String const& colorSpace) {
    return getOrCreateInColorSpace(EntityHolder<IDataSource const>(SharedPtr<IDataSource const>(source)), colorSpace);
}

/// Bytes held by all ready textures (pixels and resident mip levels, the
/// tiles of tiled files).
FERRIM_EXPORT std::int64_t getMemoryUsage();

/// The tile cache through which every texture of a tiled, mip-mapped file
/// reads its tiles (see ImageTexture.h): one for the process, made by the
/// cache's start (or the first tiled texture), never destroyed, its cap the
/// setting below.
FERRIM_EXPORT TileCache& getTileCache();
inline constexpr double DEFAULT_TILE_MEMORY_MIB = 1024.0;
/// 1 TiB: a larger cap is taken for a mistake.
inline constexpr double MAX_TILE_MEMORY_MIB = 1048576.0;
/// The memory the tiles of all tiled textures may hold, in MiB (2^20 bytes;
/// fractions allowed). A cap smaller than the tiles held evicts at once. NaN,
/// infinities, 0, negative values and values above MAX_TILE_MEMORY_MIB are
/// refused with an error naming the value, and change nothing.
FERRIM_EXPORT Expected<std::true_type, String> setTileMemoryCap(double mebibytes);
/// The cap in MiB (DEFAULT_TILE_MEMORY_MIB until set).
FERRIM_EXPORT double getTileMemoryCap();
/// The loader finishes the texture it is building and then takes no more.
FERRIM_EXPORT void suspend();
/// Undoes `suspend`; does nothing in any other state.
FERRIM_EXPORT void resume();

/// The ready textures of the index (for the mip-map manager and reports).
FERRIM_EXPORT Stack<SharedPtr<ImageTexture>> getReadyTextures();
/// Whether the loader thread runs (between the start and stop hooks).
FERRIM_EXPORT bool isStarted();

/// The start-up hook's work: loader running, offload folder created,
/// statistics reset. Called by the library's start-up.
FERRIM_EXPORT void start();
/// The shut-down hook's work: loader stopped and joined, index emptied.
FERRIM_EXPORT void stop();

} // namespace Quelin::ImageTextureCache
