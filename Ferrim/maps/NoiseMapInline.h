#pragma once
// The noise evaluator's per-sample steps as inline code: its own entry points
// use them, and so does an evaluator that holds noise inputs and runs them in
// its own frame rather than calling each through the table (the mix of maps).
// Only the library includes this; it refers to tables it keeps to itself.
#include "Ferrim/maps/GradientNoise.h"
#include "Ferrim/maps/NoiseMap.h"

namespace Quelin {

inline float NoiseMapEvaluator::noiseSumInline(Float4 uvw) const {
    // A multiply instead of a division keeps the divider off the sample's
    // dependency chain; it differs from uvw / size by at most an ulp.
    Float4 const p = uvw * Float4(mInverseSize);
    if (!mSingleOctave) return octaveSum(p);
    return MapsDetail::gradientNoise(p);
}

inline float NoiseMapEvaluator::weightOfSum(float sum) const {
    // The sum's mapping to [0, 1] and the threshold ramp in one multiply-add,
    // so that the sample's dependency chain ends two steps sooner.
    return clamp(sum * mSumToWeightScale + mSumToWeightOffset, 0.f, 1.f);
}

inline RgbAlpha NoiseMapEvaluator::colorAtPoint(Float4 uvw) const {
    return MapsDetail::mix(mColor1.getColor(), mColor2.getColor(), weightOfSum(noiseSumInline(uvw)));
}

} // namespace Quelin
