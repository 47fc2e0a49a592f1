#pragma once
// Writing a mip chain as one tiled texture file.
#include "QuelinLibImage/Image.h"
#include <span>

namespace Quelin {

/// Writes a mip chain, level 0 first, as one file of that many levels (EXR and
/// TIFF), marked as a ready texture, in square tiles of side `tileSize` (a
/// multiple of 16 up to 4096; 0 writes scanlines). The levels share one pixel
/// format. Errors name the file.
Expected<void> writeImageLevels(std::span<Image const> levels, Io::Path const& path, ImageWriteOptions const& options, int tileSize);

} // namespace Quelin
