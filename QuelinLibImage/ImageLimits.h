#pragma once
// The largest image any decoder of this library accepts, checked from the
// size a file declares before anything is allocated for its pixels: a damaged
// header must not make the program ask for many gigabytes.
#include "QuelinLib/Base.h"

namespace Quelin {

struct ImageLimits {
    /// Widest and tallest image, in pixels.
    static constexpr std::int64_t MAX_SIDE = 65536;
    /// Most pixels: 16384 x 16384 (268 million), four gigabytes as float RGBA.
    static constexpr std::int64_t MAX_PIXELS = std::int64_t(16384) * 16384;
    static constexpr int MAX_CHANNELS = 64;
    /// Most bytes of pixel data as the file stores it: 16384 x 16384 RGBA float.
    static constexpr std::int64_t MAX_BYTES = std::int64_t(4) << 30;
    /// How many times the file's size its decoded pixels may be. Zip, the
    /// strongest compression image formats use, reaches about 1000:1 on a
    /// blank image; beyond that the header lies about the content.
    static constexpr std::int64_t MAX_EXPANSION = 4096;
    /// Below this many decoded bytes the expansion is not checked (small
    /// files of blank images are legitimate).
    static constexpr std::int64_t UNCHECKED_BYTES = std::int64_t(64) << 20;
};

/// The size an image file declares, as its decoder read it from the header.
struct DeclaredImageSize {
    std::int64_t width = 0;
    std::int64_t height = 0;
    int channels = 0;
    int bytesPerChannel = 0;  ///< as stored in the file (1, 2 for half, 4 for float)
    /// The file's size in bytes, when known: pixels it cannot hold are refused.
    Optional<std::int64_t> fileBytes;
};

/// Whether an image of the declared size may be decoded: sides from 1 to
/// MAX_SIDE, at most MAX_PIXELS pixels, MAX_CHANNELS channels and MAX_BYTES
/// bytes, and no more than MAX_EXPANSION times the file's size. The error reads
/// "<name>: <problem>", on one line.
Expected<void> checkDeclaredImageSize(StringView name, DeclaredImageSize const& size);

} // namespace Quelin
