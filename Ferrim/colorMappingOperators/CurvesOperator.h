#pragma once
// Curves: the classic "curves" adjustment of image editors.
//
// What it does
//   Reshapes the tonal response of the image with up to four curves drawn
//   through control points: a master curve that acts on all three channels,
//   then one curve each for red, green and blue. The horizontal axis is the
//   incoming display value, the vertical axis the outgoing one, both from 0
//   (black) to 1 (white). The operator works on display-encoded (sRGB) values,
//   so equal steps on the axes are equal steps in perceived brightness; the
//   pipeline inserts the encoding conversions around it.
//
// Parameters
//   "enabled"         off leaves the image untouched.
//   "curves_master"   control points (x, y) of the master curve.
//   "curves_red", "curves_green", "curves_blue"
//                     control points of the per-channel curves, applied after
//                     the master curve.
//   A curve with fewer than two points is the identity. Points are sorted by x;
//   of several points with the same x the last one counts. The curve passes
//   through every point as a smooth monotone cubic (Fritsch-Carlson), so it
//   never overshoots between points and never bends back: if the points go
//   down where they should go up, they are raised to the highest value seen so
//   far. Before the first and after the last point the curve continues in a
//   straight line with its end slope (so over-bright values keep rising).
//
// Undoing
//   `unmap` inverts the combined curve of each channel exactly (to the
//   precision of its 4096-sample table). A curve with a flat stretch maps many
//   inputs to one output; unmapping that output gives the middle of the
//   stretch. Exclusion bit: ColorMappingExclude::Curves (0x400).
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

/// A monotone non-decreasing curve through control points, sampled into an
/// evenly spaced table over [xMin, xMax] for per-sample evaluation and exact
/// inversion; straight-line continuation outside.
class FERRIM_EXPORT MonotoneCurve {
public:
    static constexpr int TABLE_SIZE = 4096;

    /// The identity over [0, 1].
    MonotoneCurve();
    /// Fritsch-Carlson cubic through `points` (x, y), sampled over [xMin, xMax].
    /// Fewer than two distinct points give the identity.
    static MonotoneCurve fromPoints(Stack<Vector2> points, float xMin = 0.f, float xMax = 1.f);
    /// Samples `f` over [xMin, xMax] (f must not decrease).
    static MonotoneCurve fromFunction(Function<float(float)> const& f, float xMin, float xMax);

    float evaluate(float x) const {
        float const t = (x - mXMin) * mScale;
        // NaN stays NaN; a flat end stays flat out to infinity (not 0 times infinity).
        if (!(t >= 0.f)) return t < 0.f ? (mSlopeLow == 0.f ? mY.front() : mY.front() + (x - mXMin) * mSlopeLow) : x;
        if (t >= float(TABLE_SIZE - 1)) return mSlopeHigh == 0.f ? mY.back() : mY.back() + (x - mXMax) * mSlopeHigh;
        int const i = int(t);
        float const f = t - float(i);
        return mY[std::size_t(i)] + (mY[std::size_t(i) + 1] - mY[std::size_t(i)]) * f;
    }
    /// The x whose evaluate() is y; the middle of a flat stretch.
    float invert(float y) const;
    bool isIdentity() const { return mIdentity; }
    /// The curve that applies `first`, then this one.
    MonotoneCurve composedAfter(MonotoneCurve const& first) const;

    /// What evaluate() reads, for vector forms of it: the table spans
    /// [xMin, xMax] with `scale` samples per unit and continues with the
    /// slopes beyond.
    struct View {
        float xMin, xMax, scale, slopeLow, slopeHigh;
        float const* y;
        int size;
    };
    View view() const { return {mXMin, mXMax, mScale, mSlopeLow, mSlopeHigh, mY.data(), int(mY.size())}; }

private:
    float mXMin = 0.f, mXMax = 1.f, mScale = float(TABLE_SIZE - 1);
    float mSlopeLow = 1.f, mSlopeHigh = 1.f;
    bool mIdentity = true;
    Stack<float> mY;
};

/// Control points of a curve property (a list of "Zatho.CurvePoint" records:
/// "x" and "y").
FERRIM_EXPORT SharedPtr<DataObjectDefinition const> const& curvePointDefinition();
FERRIM_EXPORT ListPropertyValue makeCurvePoints(Stack<Vector2> const& points);
FERRIM_EXPORT Stack<Vector2> readCurvePoints(ListPropertyValue const& list);

class FERRIM_EXPORT CurvesOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    CurvesOperator();
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<CurvesOperator>(); }
    void compileMapping(ColorProgramBuilder& builder) const override;

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    void mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    /// Master and channel curve combined, per channel.
    MonotoneCurve mChannel[3];
};

} // namespace Quelin
