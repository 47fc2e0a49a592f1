#include "QuelinLibImage/ImageLimits.h"

#include <algorithm>

namespace Quelin {

Expected<void> checkDeclaredImageSize(StringView name, DeclaredImageSize const& size) {
    auto refuse = [&](String const& problem) { return makeError(String(name) + ": " + problem); };
    String const dims = std::to_string(size.width) + "x" + std::to_string(size.height);
    if (size.width < 1 || size.height < 1) return refuse("the image size " + dims + " is empty or negative");
    if (size.width > ImageLimits::MAX_SIDE || size.height > ImageLimits::MAX_SIDE)
        return refuse("the image size " + dims + " is beyond the limit of " + std::to_string(ImageLimits::MAX_SIDE) +
                      " pixels per side");
    // Both sides are at most 2^16 here, so the products below cannot overflow.
    std::int64_t const pixels = size.width * size.height;
    if (pixels > ImageLimits::MAX_PIXELS)
        return refuse("the image size " + dims + " is beyond the limit of " + std::to_string(ImageLimits::MAX_PIXELS) +
                      " pixels");
    if (size.channels < 1 || size.channels > ImageLimits::MAX_CHANNELS)
        return refuse("the image has " + std::to_string(size.channels) + " channels; from 1 to " +
                      std::to_string(ImageLimits::MAX_CHANNELS) + " are accepted");
    if (size.bytesPerChannel < 1 || size.bytesPerChannel > 8)
        return refuse("the image has " + std::to_string(size.bytesPerChannel) + " bytes per channel");
    std::int64_t const bytes = pixels * size.channels * size.bytesPerChannel;
    if (bytes > ImageLimits::MAX_BYTES)
        return refuse("the image size " + dims + " with " + std::to_string(size.channels) + " channels of " +
                      std::to_string(size.bytesPerChannel) + " bytes is beyond the limit of " +
                      std::to_string(ImageLimits::MAX_BYTES) + " bytes");
    if (size.fileBytes && bytes > ImageLimits::UNCHECKED_BYTES &&
        bytes / ImageLimits::MAX_EXPANSION > std::max<std::int64_t>(*size.fileBytes, 0))
        return refuse("the header declares " + dims + " pixels with " + std::to_string(size.channels) +
                      " channels, more than the file's " + std::to_string(*size.fileBytes) +
                      " bytes can hold (the file is damaged)");
    return {};
}

} // namespace Quelin
