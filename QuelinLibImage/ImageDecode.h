#pragma once
// Decoding of image files (from disk or from memory) into `Image`.
#include "QuelinLib/Exception.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/TaskScheduler.h"
#include "QuelinLibImage/Image.h"

namespace Quelin {

enum class ImageFormat : std::uint8_t { Exr, Hdr, Png, Jpeg, Tiff, Tga, Bmp };

/// Text for messages ("PNG").
char const* getImageFormatName(ImageFormat format);

/// Maps a MIME type ("image/png", "image/x-exr", "image/vnd.radiance") or a
/// file extension with or without its dot ("png", ".EXR", "jpg") to a format.
/// An unknown or empty type throws `Exception`; `sourceName` (a path) is named
/// in its text when given.
ImageFormat getImageFormatFromContentType(StringView contentType, StringView sourceName = {});

/// The largest image the decoder accepts, checked from the header before any
/// pixel memory is allocated: each side at most MAX_IMAGE_SIDE pixels and the
/// decoded level 0 at most MAX_IMAGE_BYTES. 64 Ki pixels covers every texture
/// a renderer meets (16K and 32K panoramas included); 4 GiB for one image
/// keeps a corrupt header from asking for all of memory.
inline constexpr std::int64_t MAX_IMAGE_SIDE = 65536;
inline constexpr std::int64_t MAX_IMAGE_BYTES = std::int64_t(4) << 30;
/// Null when width x height of `format` is within the limits, otherwise a
/// one-line error naming `sourceName` and the declared size.
Expected<void> checkImageSize(std::int64_t width, std::int64_t height, PixelFormat format, StringView sourceName);

/// Decodes the stream's image (the first subimage, its finest level) as
/// `format`. The pixel format follows the file: 1 to 4 channels (grey, grey
/// with alpha, RGB, RGBA; more channels keep the first four) with 8-bit,
/// 16-bit, half or float channels as stored (32-bit integer channels, and
/// channels of mixed types, become float);
/// Radiance HDR files keep their shared-exponent pixels (`PixelRgbe`).
/// Rows are top first. Progress counts scanlines.
/// Every image the library reads comes through here. Before any pixel memory
/// is asked for, the header's size is checked against the limits and against
/// what the stream's bytes can hold (`checkDeclaredImageSize`). A file that
/// fails to decode, ends early (a chunk, strip or tile past its end, a codec
/// warning of missing data) or needs more memory than there is throws
/// `Exception` whose one-line text names the stream and the reason.
Image makeImage(Io::InputStream& stream, ImageFormat format, TaskProgress& progress);

struct ImageDecodeOptions {
    /// Premultiplied colour where the file stores straight alpha (the codec
    /// library's own default, for programs that treat images as it does);
    /// textures keep alpha as stored.
    bool associateAlpha = false;
    /// When set, receives what the file says of its colours.
    struct ImageColorTag* colorTag = nullptr;
};
Image makeImage(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, ImageDecodeOptions const& options);

/// Like `makeImage`, but also the coarser levels when the file stores a mip
/// chain (tiled, mip-mapped EXR and TIFF): level 0 first. A file without one
/// gives one level.
Stack<Image> makeImageLevels(Io::InputStream& stream, ImageFormat format, TaskProgress& progress);

/// What a file says of its colours, as the reader found it: OpenImageIO's
/// "oiio:ColorSpace" ("sRGB", "Linear", "GammaCorrected", a config's name;
/// empty when the file says nothing) and "oiio:Gamma" (0 when absent).
struct ImageColorTag {
    String space;
    float gamma = 0.f;
};
/// `makeImageLevels` that also reports the file's colour tag.
Stack<Image> makeImageLevels(Io::InputStream& stream, ImageFormat format, TaskProgress& progress, ImageColorTag& tag);

} // namespace Quelin
