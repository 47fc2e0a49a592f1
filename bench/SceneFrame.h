#pragma once
// A UHD frame of scene-linear values as a render produces them: mostly below
// 1, some highlights. Shared by the colour benchmarks so that peers map the
// same pixels.
#include <random>

#include "QuelinLib/Base.h"
#include "QuelinLib/Types.h"

namespace FerrimBench {

constexpr int WIDTH = 3840, HEIGHT = 2160;
constexpr std::size_t PIXELS = std::size_t(WIDTH) * HEIGHT;

inline Quelin::Stack<Quelin::Rgb> const& sceneFrame() {
    static Quelin::Stack<Quelin::Rgb> const frame = [] {
        Quelin::Stack<Quelin::Rgb> f(PIXELS);
        std::mt19937 rng(1);
        std::exponential_distribution<float> e(2.5f);
        for (Quelin::Rgb& p : f) p = Quelin::Rgb(e(rng), e(rng), e(rng));
        return f;
    }();
    return frame;
}

} // namespace FerrimBench
