#include "Ferrim/TextureMap/TextureSampling.h"

#include <cmath>

#include "QuelinLib/Exception.h"

namespace Quelin::TextureSampling {

namespace {

template <PixelFormat F> SampleFunction forFormat(InterpolationMode mode, Conversion conversion) {
    constexpr bool EIGHT_BIT = F == PixelFormat::Mono8 || F == PixelFormat::MonoAlpha8 || F == PixelFormat::Rgb8 ||
                               F == PixelFormat::Rgba8;
    if constexpr (EIGHT_BIT) {
        if (conversion == Conversion::Table8) return Detail::kernelFor<F, Conversion::Table8>(mode);
    }
    if (conversion == Conversion::Power) return Detail::kernelFor<F, Conversion::Power>(mode);
    return Detail::kernelFor<F, Conversion::None>(mode);
}

} // namespace

float const* gamma22Table() {
    static StaticArray<float, 256> const sTable = [] {
        StaticArray<float, 256> t{};
        for (int i = 0; i < 256; ++i) t[std::size_t(i)] = float(std::pow(double(i) / 255.0, 2.2));
        return t;
    }();
    return sTable.data();
}

StaticArray<float, 256> makeTable8(float power) {
    StaticArray<float, 256> t{};
    for (int i = 0; i < 256; ++i) {
        float const x = float(i) / 255.f;
        t[std::size_t(i)] = power == 1.f ? x : float(std::pow(double(x), double(power)));
    }
    return t;
}

SampleFunction selectSampleFunction(PixelFormat format, InterpolationMode mode, Conversion conversion) {
    switch (format) {
    case PixelFormat::Mono8: return forFormat<PixelFormat::Mono8>(mode, conversion);
    case PixelFormat::Mono16: return forFormat<PixelFormat::Mono16>(mode, conversion);
    case PixelFormat::MonoFloat: return forFormat<PixelFormat::MonoFloat>(mode, conversion);
    case PixelFormat::MonoAlpha8: return forFormat<PixelFormat::MonoAlpha8>(mode, conversion);
    case PixelFormat::MonoAlpha16: return forFormat<PixelFormat::MonoAlpha16>(mode, conversion);
    case PixelFormat::MonoAlphaFloat: return forFormat<PixelFormat::MonoAlphaFloat>(mode, conversion);
    case PixelFormat::Rgb8: return forFormat<PixelFormat::Rgb8>(mode, conversion);
    case PixelFormat::Rgb16: return forFormat<PixelFormat::Rgb16>(mode, conversion);
    case PixelFormat::RgbFloat: return forFormat<PixelFormat::RgbFloat>(mode, conversion);
    case PixelFormat::Rgba8: return forFormat<PixelFormat::Rgba8>(mode, conversion);
    case PixelFormat::Rgba16: return forFormat<PixelFormat::Rgba16>(mode, conversion);
    case PixelFormat::RgbaFloat: return forFormat<PixelFormat::RgbaFloat>(mode, conversion);
    case PixelFormat::Rgbe: return forFormat<PixelFormat::Rgbe>(mode, conversion);
    case PixelFormat::MonoWithExp: return forFormat<PixelFormat::MonoWithExp>(mode, conversion);
    }
    Quelin::Detail::throwStopException("TextureMap/TextureSampling", __LINE__);
}

} // namespace Quelin::TextureSampling
