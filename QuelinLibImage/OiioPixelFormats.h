#pragma once
// Between the codec library's channel types and our pixel formats: what a
// reader of its files holds and asks it for.
#include <OpenImageIO/typedesc.h>
#include <algorithm>

#include "QuelinLibImage/Pixel.h"

namespace Quelin {

/// The format holding `channels` (the first four of more) of a file's `type`:
/// 8 and 16 bits as stored, every other type as float.
inline PixelFormat pixelFormatFor(int channels, OIIO::TypeDesc type) {
    static constexpr PixelFormat BY_CHANNELS[4][3] = {
        {PixelFormat::Mono8, PixelFormat::Mono16, PixelFormat::MonoFloat},
        {PixelFormat::MonoAlpha8, PixelFormat::MonoAlpha16, PixelFormat::MonoAlphaFloat},
        {PixelFormat::Rgb8, PixelFormat::Rgb16, PixelFormat::RgbFloat},
        {PixelFormat::Rgba8, PixelFormat::Rgba16, PixelFormat::RgbaFloat},
    };
    int const depth = type == OIIO::TypeDesc::UINT8 ? 0 : type == OIIO::TypeDesc::UINT16 ? 1 : 2;
    return BY_CHANNELS[std::clamp(channels, 1, 4) - 1][depth];
}

/// The codec library's type of a channel type held in memory.
inline OIIO::TypeDesc typeDescOf(ChannelType type) {
    switch (type) {
    case ChannelType::UInt8:
        return OIIO::TypeDesc::UINT8;
    case ChannelType::UInt16:
        return OIIO::TypeDesc::UINT16;
    default:
        return OIIO::TypeDesc::FLOAT;
    }
}

} // namespace Quelin
