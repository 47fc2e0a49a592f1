#pragma once
// Mip levels of images: how many, how large, and the filter that builds them.
//
// The filter: exact-area box filter. Level i + 1 has max(1, floor(w / 2)) x
// max(1, floor(h / 2)) pixels of level i; each of its pixels is the average of
// the rectangle of level i that it covers, with partly covered edge pixels
// weighted by the covered fraction. Every source pixel's weights add up to the
// same share, so each level keeps level 0's mean (up to float rounding, and for
// integer channels up to the rounding to the channel), and odd or
// non-power-of-two sizes lose no row or column. Even sizes reduce to the usual
// 2 x 2 average. Channels are accumulated in float; alpha is averaged like the
// colour channels (straight alpha, as decoded).
//
// Levels keep the precision of level 0 (8 bits, 16 bits, half, float). Those
// of 8-bit, 16-bit and half texels are built in float and rounded back: the
// chain carries each level's float values to the next one, so every stored
// level is its filtered value rounded once, and the rounding of one level
// does not add to the next. The carry costs, while the chain is built, one
// float copy of level 2 (a quarter of an 8-bit level 0's bytes; level 1 for
// half textures and for sides that are not multiples of 4).
#include "Ferrim/Export.h"
#include "QuelinLib/TaskScheduler.h"
#include "QuelinLibImage/Image.h"

namespace Quelin::MipGeneration {

/// Levels of a full chain for a level-0 resolution (1 for an empty image).
FERRIM_EXPORT int getLevelCount(Pixel resolution);
/// Resolution of `level` in a chain whose level 0 is `resolution`.
FERRIM_EXPORT Pixel getLevelResolution(Pixel resolution, int level);
/// Pixel format of levels 1 and up: the shared-exponent formats give RgbFloat,
/// every other format keeps its own.
FERRIM_EXPORT PixelFormat getLevelFormat(PixelFormat level0Format);

/// The next coarser level of `finer`, rows computed in parallel on `scheduler`.
FERRIM_EXPORT Image downsample(Image const& finer, TaskScheduler& scheduler);
/// Levels 1 to n - 1 of the chain of `level0` (level 0 itself is not copied),
/// each built in parallel on `scheduler` (the calling thread's default when null).
FERRIM_EXPORT Stack<Image> buildMipChain(Image const& level0, TaskScheduler* scheduler = nullptr);

} // namespace Quelin::MipGeneration
