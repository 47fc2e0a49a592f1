#include "Ferrim/TextureMap/TextureSampling.h"

#include <cmath>

namespace Quelin::TextureSampling {

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
    return dispatch(format, conversion, mode, []<PixelFormat F, Conversion C, InterpolationMode I>() -> SampleFunction {
        return &sample<F, C, I>;
    });
}

} // namespace Quelin::TextureSampling
