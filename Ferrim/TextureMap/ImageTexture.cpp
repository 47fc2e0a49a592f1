#include "Ferrim/TextureMap/ImageTexture.h"

#include "Ferrim/Ferrim.h"
#include "Ferrim/TextureMap/ImageTextureCacheDetail.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/Lib.h"
#include "QuelinLibImage/ImageDecode.h"

namespace Quelin {

// Data sources are base-library types; this module registers them so that
// scenes holding texture maps can store and load them.
FERRIM_REGISTER_ENTITY(FileDataSource);
FERRIM_REGISTER_ENTITY(MemoryDataSource);

ImageTexture::ImageTexture(EntityHolder<IDataSource const> source) : mSource(std::move(source)) {
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
        auto stream = mSource->openStream();
        if (!stream)
            throw Exception(stream.error());
        TaskProgress progress;
        levels = makeImageLevels(**stream, format, progress);
        // A file's own chain is used as it stands; one that stops short of 1 x 1
        // (or a file without one) is completed by the filter.
        if (!levels.empty()) {
            Stack<Image> coarser = MipMapManager::buildMipChain(levels.back());
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

ImageTexture::~ImageTexture() = default;

Image::Descriptor ImageTexture::getDescriptor() const {
    return mMips.getLevelCount() > 0 ? mMips.getLevel(0).getDescriptor() : Image::Descriptor();
}

void ImageTexture::requireLevel(int level) const {
    // First test without the lock: the common case, nothing on disk.
    if (level >= mMips.getOffloadedCount())
        return;
    std::lock_guard lock(mMutex);
    MipMapManager::readBack(*this, level);
}

std::int64_t ImageTexture::getMemoryUsage() const { return mMips.getMemoryUsage(); }
std::int64_t ImageTexture::getTotalSize() const { return mMips.getTotalSize(); }

bool ImageTexture::isOffloadable() const {
    std::lock_guard lock(mMutex);
    return mMips.isOffloadable();
}

void ImageTexture::setOffloadable(bool offloadable) {
    std::lock_guard lock(mMutex);
    MipChainAccess::setOffloadable(mMips, offloadable && hasPixels());
}

} // namespace Quelin
