#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>
#include <cmath>

namespace Quelin {

// ---------------------------------------------------------------------------
// MonotoneCurve
// ---------------------------------------------------------------------------

namespace {
Stack<float> sampleIdentity(float xMin, float xMax) {
    Stack<float> y(MonotoneCurve::TABLE_SIZE);
    for (int i = 0; i < MonotoneCurve::TABLE_SIZE; ++i)
        y[std::size_t(i)] = xMin + (xMax - xMin) * float(i) / float(MonotoneCurve::TABLE_SIZE - 1);
    return y;
}
} // namespace

MonotoneCurve::MonotoneCurve() : mY(sampleIdentity(0.f, 1.f)) {}

MonotoneCurve MonotoneCurve::fromFunction(Function<float(float)> const& f, float xMin, float xMax) {
    MonotoneCurve c;
    c.mXMin = xMin;
    c.mXMax = xMax;
    c.mScale = float(TABLE_SIZE - 1) / (xMax - xMin);
    double const step = double(xMax - xMin) / double(TABLE_SIZE - 1);
    c.mIdentity = true;
    float running = -std::numeric_limits<float>::infinity();
    for (int i = 0; i < TABLE_SIZE; ++i) {
        float const x = float(double(xMin) + step * i);
        // A curve that bent back could not be undone; keep it non-decreasing.
        running = std::max(running, f(x));
        c.mY[std::size_t(i)] = running;
        if (std::abs(running - x) > 1e-6f) c.mIdentity = false;
    }
    float const h = float(step);
    c.mSlopeLow = (c.mY[1] - c.mY[0]) / h;
    c.mSlopeHigh = (c.mY[TABLE_SIZE - 1] - c.mY[TABLE_SIZE - 2]) / h;
    return c;
}

MonotoneCurve MonotoneCurve::fromPoints(Stack<Vector2> points, float xMin, float xMax) {
    std::stable_sort(points.begin(), points.end(), [](Vector2 a, Vector2 b) { return a.x < b.x; });
    // Of points sharing an x, the last one counts.
    Stack<Vector2> p;
    for (Vector2 const& q : points) {
        if (!std::isfinite(q.x) || !std::isfinite(q.y)) continue;
        if (!p.empty() && p.back().x == q.x)
            p.back() = q;
        else
            p.push_back(q);
    }
    if (p.size() < 2) {
        MonotoneCurve c;
        c.mXMin = xMin;
        c.mXMax = xMax;
        c.mScale = float(TABLE_SIZE - 1) / (xMax - xMin);
        c.mY = sampleIdentity(xMin, xMax);
        return c;
    }
    for (std::size_t i = 1; i < p.size(); ++i) p[i].y = std::max(p[i].y, p[i - 1].y);

    // Fritsch-Carlson tangents: secant averages, limited so that each
    // Hermite segment stays monotone.
    std::size_t const n = p.size();
    Stack<double> d(n - 1), m(n);
    for (std::size_t k = 0; k + 1 < n; ++k) d[k] = double(p[k + 1].y - p[k].y) / double(p[k + 1].x - p[k].x);
    m[0] = d[0];
    m[n - 1] = d[n - 2];
    for (std::size_t k = 1; k + 1 < n; ++k) m[k] = (d[k - 1] * d[k] <= 0.0) ? 0.0 : 0.5 * (d[k - 1] + d[k]);
    for (std::size_t k = 0; k + 1 < n; ++k) {
        if (d[k] == 0.0) {
            m[k] = m[k + 1] = 0.0;
            continue;
        }
        double const a = m[k] / d[k], b = m[k + 1] / d[k];
        double const s = a * a + b * b;
        if (s > 9.0) {
            double const tau = 3.0 / std::sqrt(s);
            m[k] = tau * a * d[k];
            m[k + 1] = tau * b * d[k];
        }
    }
    auto hermite = [&](float xf) -> float {
        double const x = xf;
        // Straight continuation with the end tangents.
        if (x <= p.front().x) return float(p.front().y + (x - p.front().x) * m.front());
        if (x >= p.back().x) return float(p.back().y + (x - p.back().x) * m.back());
        std::size_t k = std::size_t(std::upper_bound(p.begin(), p.end(), xf, [](float v, Vector2 q) { return v < q.x; }) -
                                    p.begin()) - 1;
        double const h = double(p[k + 1].x - p[k].x), t = (x - p[k].x) / h;
        double const t2 = t * t, t3 = t2 * t;
        return float((2 * t3 - 3 * t2 + 1) * p[k].y + (t3 - 2 * t2 + t) * h * m[k] + (-2 * t3 + 3 * t2) * p[k + 1].y +
                     (t3 - t2) * h * m[k + 1]);
    };
    return fromFunction(hermite, xMin, xMax);
}

float MonotoneCurve::invert(float y) const {
    if (!(y == y)) return y;
    float const h = (mXMax - mXMin) / float(TABLE_SIZE - 1);
    if (y < mY.front()) return mSlopeLow > 0.f ? mXMin + (y - mY.front()) / mSlopeLow : mXMin;
    if (y > mY.back()) return mSlopeHigh > 0.f ? mXMax + (y - mY.back()) / mSlopeHigh : mXMax;
    auto const lo = std::lower_bound(mY.begin(), mY.end(), y);
    auto const hi = std::upper_bound(lo, mY.end(), y);
    if (lo != hi) {
        // Exact hits: the middle of the (possibly one-sample) flat stretch.
        float const mid = 0.5f * float((lo - mY.begin()) + (hi - mY.begin()) - 1);
        return mXMin + mid * h;
    }
    std::size_t const i = std::size_t(lo - mY.begin());  // mY[i - 1] < y < mY[i]
    float const a = mY[i - 1], b = mY[i];
    return mXMin + (float(i - 1) + (y - a) / (b - a)) * h;
}

MonotoneCurve MonotoneCurve::composedAfter(MonotoneCurve const& first) const {
    if (first.isIdentity() && first.mXMin == mXMin && first.mXMax == mXMax) return *this;
    MonotoneCurve c = fromFunction([&](float x) { return evaluate(first.evaluate(x)); }, first.mXMin, first.mXMax);
    // Beyond the table the composition continues with the product of the end slopes.
    c.mSlopeLow = first.mSlopeLow * mSlopeLow;
    c.mSlopeHigh = first.mSlopeHigh * mSlopeHigh;
    return c;
}

// ---------------------------------------------------------------------------
// Curve points
// ---------------------------------------------------------------------------

SharedPtr<DataObjectDefinition const> const& curvePointDefinition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        b.addFloat("x", 0.f, "Input", "Where the point sits on the horizontal (incoming) axis.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-64.f, 64.f));
        b.addFloat("y", 0.f, "Output", "The value the curve gives for the point's input.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-64.f, 64.f));
        return b.build("Zatho.CurvePoint");
    }();
    return def;
}
static Ferrim::TypeRegistrar const sCurvePointRegistrar([] { return curvePointDefinition(); });

ListPropertyValue makeCurvePoints(Stack<Vector2> const& points) {
    ListPropertyValue list;
    for (Vector2 const& p : points) {
        GenericDataObject item(curvePointDefinition());
        item.set("x", p.x);
        item.set("y", p.y);
        list.push_back(std::move(item));
    }
    return list;
}

Stack<Vector2> readCurvePoints(ListPropertyValue const& list) {
    Stack<Vector2> points;
    for (std::size_t i = 0; i < list.size(); ++i) points.push_back({list[i].get<float>("x"), list[i].get<float>("y")});
    return points;
}

// ---------------------------------------------------------------------------
// CurvesOperator
// ---------------------------------------------------------------------------

namespace {
char const* const CURVE_NAMES[4] = {"curves_master", "curves_red", "curves_green", "curves_blue"};
}

SharedPtr<DataObjectDefinition const> const& CurvesOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        ListPropertyValue const identity = makeCurvePoints({{0.f, 0.f}, {1.f, 1.f}});
        char const* const uiNames[4] = {"Master", "Red", "Green", "Blue"};
        char const* const descriptions[4] = {
            "Control points of the curve applied to all three channels, in display (sRGB) values from 0 to 1.",
            "Control points of the red channel's curve, applied after the master curve.",
            "Control points of the green channel's curve, applied after the master curve.",
            "Control points of the blue channel's curve, applied after the master curve."};
        for (int i = 0; i < 4; ++i) b.addList(CURVE_NAMES[i], curvePointDefinition(), uiNames[i], descriptions[i]).setDefault(identity);
        auto def = b.build("Zatho.CurvesOperator");
        return def;
    }();
    return def;
}

CurvesOperator::CurvesOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Srgb, OperatorColorEncoding::Srgb,
                                OperatorGroup::CurveControl) {}

void CurvesOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    bool neutral = true;
    if (isActive(context)) {
        MonotoneCurve const master = MonotoneCurve::fromPoints(readCurvePoints(get<ListPropertyValue>(CURVE_NAMES[0])));
        for (int ch = 0; ch < 3; ++ch) {
            MonotoneCurve const own = MonotoneCurve::fromPoints(readCurvePoints(get<ListPropertyValue>(CURVE_NAMES[ch + 1])));
            mChannel[ch] = own.composedAfter(master);
            neutral = neutral && mChannel[ch].isIdentity();
        }
    }
    if (neutral)
        for (auto& c : mChannel) c = MonotoneCurve();
    setNeutral(neutral);
}

Rgb CurvesOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral()) return color;
    return {mChannel[0].evaluate(color.r), mChannel[1].evaluate(color.g), mChannel[2].evaluate(color.b)};
}

void CurvesOperator::mapImpl(std::span<Rgb> pixels, Pixel, Pixel extent) const {
    if (isNeutral()) return;
    for (Rgb& p : pixels.first(bucketSize(pixels.size(), extent))) p = Rgb(mChannel[0].evaluate(p.r), mChannel[1].evaluate(p.g), mChannel[2].evaluate(p.b));
}

Rgb CurvesOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::Curves) || isNeutral()) return color;
    return {mChannel[0].invert(color.r), mChannel[1].invert(color.g), mChannel[2].invert(color.b)};
}

namespace {
/// A curve's table into step parameters p[0..4] and its table pointer.
void putCurve(ColorProgramBuilder::Step& s, int slot, MonotoneCurve const& curve) {
    MonotoneCurve::View const v = curve.view();
    float* p = s.p + 5 * slot;
    p[0] = v.xMin, p[1] = v.xMax, p[2] = v.scale, p[3] = v.slopeLow, p[4] = v.slopeHigh;
    s.table[slot] = v.y;
    s.ints[0] = v.size;
}
} // namespace

void CurvesOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::Curves;
    for (int ch = 0; ch < 3; ++ch) putCurve(s, ch, mChannel[ch]);
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(CurvesOperator, "Curves");

} // namespace Quelin
