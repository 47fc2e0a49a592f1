#include "Ferrim/TextureMap/TextureSampling.h"

#include <cmath>

namespace Quelin::TextureSampling {

namespace {

/// Alpha as the kernels without a table compute it: i times 1/255 (the
/// batch kernels compute it so too, see Table8).
void fillAlpha(Table8& t) {
    for (int i = 0; i < 256; ++i) t[std::size_t(256 + i)] = float(i) * (1.f / 255.f);
}

} // namespace

float const* gamma22Table() {
    static Table8 const sTable = [] {
        Table8 t{};
        for (int i = 0; i < 256; ++i) t[std::size_t(i)] = float(std::pow(double(i) / 255.0, 2.2));
        fillAlpha(t);
        return t;
    }();
    return sTable.data();
}

Table8 makeTable8(float power) {
    Table8 t{};
    for (int i = 0; i < 256; ++i) {
        float const x = float(i) / 255.f;
        t[std::size_t(i)] = power == 1.f ? x : float(std::pow(double(x), double(power)));
    }
    fillAlpha(t);
    return t;
}

SampleFunction selectSampleFunction(PixelFormat format, InterpolationMode mode, Conversion conversion) {
    return dispatch(format, conversion, mode, []<PixelFormat F, Conversion C, InterpolationMode I>() -> SampleFunction {
        return &sample<F, C, I>;
    });
}

} // namespace Quelin::TextureSampling
