#pragma once
// Between the codec library's channel types and our pixel formats: what a
// reader of its files holds and asks it for.
#include <OpenImageIO/imageio.h>
#include <OpenImageIO/typedesc.h>
#include <algorithm>

#include "QuelinLibImage/Pixel.h"

namespace Quelin {

/// The format holding `channels` (the first four of more) of a file's `type`:
/// 8 bits, 16 bits and half as stored, every other type as float.
inline PixelFormat pixelFormatFor(int channels, OIIO::TypeDesc type) {
    static constexpr PixelFormat BY_CHANNELS[4][4] = {
        {PixelFormat::Mono8, PixelFormat::Mono16, PixelFormat::MonoHalf, PixelFormat::MonoFloat},
        {PixelFormat::MonoAlpha8, PixelFormat::MonoAlpha16, PixelFormat::MonoAlphaHalf, PixelFormat::MonoAlphaFloat},
        {PixelFormat::Rgb8, PixelFormat::Rgb16, PixelFormat::RgbHalf, PixelFormat::RgbFloat},
        {PixelFormat::Rgba8, PixelFormat::Rgba16, PixelFormat::RgbaHalf, PixelFormat::RgbaFloat},
    };
    int const depth = type == OIIO::TypeDesc::UINT8    ? 0
                      : type == OIIO::TypeDesc::UINT16 ? 1
                      : type == OIIO::TypeDesc::HALF   ? 2
                                                       : 3;
    return BY_CHANNELS[std::clamp(channels, 1, 4) - 1][depth];
}

/// The format of a file's first four channels: their type when they share
/// one, float when they mix types (a half colour with a float alpha).
inline PixelFormat pixelFormatFor(OIIO::ImageSpec const& spec) {
    int const channels = std::clamp(spec.nchannels, 1, 4);
    OIIO::TypeDesc type = spec.channelformat(0);
    for (int c = 1; c < channels && c < spec.nchannels; ++c)
        if (spec.channelformat(c) != type) type = OIIO::TypeDesc::FLOAT;
    return pixelFormatFor(channels, type);
}

/// The codec library's type of a channel type held in memory.
inline OIIO::TypeDesc typeDescOf(ChannelType type) {
    switch (type) {
    case ChannelType::UInt8:
        return OIIO::TypeDesc::UINT8;
    case ChannelType::UInt16:
        return OIIO::TypeDesc::UINT16;
    case ChannelType::Half:
        return OIIO::TypeDesc::HALF;
    default:
        return OIIO::TypeDesc::FLOAT;
    }
}

} // namespace Quelin
