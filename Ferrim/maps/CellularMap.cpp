#include "Ferrim/maps/CellularMap.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/ProceduralSupport.h"
#include "QuelinLib/Wide.h"

namespace Quelin {

namespace {

// Numerical Recipes' linear congruential generator, 32-bit wrap-around.
constexpr std::uint32_t LCG_A = 1664525u;
constexpr std::uint32_t LCG_C = 1013904223u;
constexpr int MAX_POINTS = 9;

// The generator runs three steps per point (x, y, z). Step k from a state s
// is a_k s + c_k, so the coordinates of all nine points come straight from
// the cell's first state, four points at a time, without a serial chain.
struct Jumps {
    alignas(16) std::uint32_t a[3][12];  // [axis][point]
    alignas(16) std::uint32_t c[3][12];
};
constexpr Jumps makeJumps() {
    Jumps j{};
    std::uint32_t a = 1, c = 0;
    for (int k = 1; k <= 3 * MAX_POINTS; ++k) {
        a = a * LCG_A;
        c = c * LCG_A + LCG_C;
        int const point = (k - 1) / 3, axis = (k - 1) % 3;
        j.a[axis][point] = a;
        j.c[axis][point] = c;
    }
    return j;
}
constexpr Jumps JUMPS = makeJumps();

// Poisson probabilities e^-3 3^(k+1) / (k+1)! of k + 1 points for a mean of 3.
// Each is compared with by itself, not accumulated, so most cells get nine points.
struct PointCountTable {
    alignas(16) StaticArray<float, 8> t;
    PointCountTable() {
        double factorial = 1.0;
        for (int k = 0; k < 8; ++k) {
            factorial *= double(k + 1);
            t[std::size_t(k)] = float(1.0 / (std::pow(3.0, double(-1 - k)) * 20.085537 * factorial));
        }
    }
};
PointCountTable const POINT_COUNTS;

// The 13 neighbour directions; each is visited as +o and -o.
alignas(16) constexpr float NEIGHBOURS[13][4] = {{1, 0, 0, 0},  {0, 1, 0, 0},  {0, 0, 1, 0},   {0, 1, 1, 0},  {1, 0, 1, 0},
                                                 {1, 0, -1, 0}, {0, 1, -1, 0}, {1, 1, 0, 0},   {1, -1, 0, 0}, {1, 1, 1, 0},
                                                 {1, 1, -1, 0}, {1, -1, 1, 0}, {1, -1, -1, 0}};

// The same directions by axis, padded to 16, for the box distances.
constexpr auto makeNeighbourAxes() {
    StaticArray<StaticArray<float, 16>, 3> axes{};
    for (int i = 0; i < 13; ++i)
        for (int a = 0; a < 3; ++a) axes[std::size_t(a)][std::size_t(i)] = NEIGHBOURS[i][a];
    return axes;
}
alignas(16) constexpr auto NEIGHBOUR_AXES_TABLE = makeNeighbourAxes();
float const* const NEIGHBOUR_AXES[3] = {NEIGHBOUR_AXES_TABLE[0].data(), NEIGHBOUR_AXES_TABLE[1].data(),
                                        NEIGHBOUR_AXES_TABLE[2].data()};

using Wide::lane;
template <int I> inline Float4 broadcast(Float4 a) { return Wide::broadcastLane<I>(a); }

/// s * 2^-32 for unsigned s, rounded once (the two halves convert exactly).
inline Float4 unitFloat(Int4 s) {
    Float4 const hi = convertToFloat(Wide::shiftRightLogical(s, 16));
    Float4 const lo = convertToFloat(s & Int4(0xFFFF));
    return hi * Float4(0x1p-16f) + lo * Float4(0x1p-32f);
}

inline int countPoints(std::uint32_t state) {
    Float4 const u(float(state) * 0x1p-32f);
    int const below =
        (u < Float4::load(&POINT_COUNTS.t[0])).mask() | ((u < Float4::load(&POINT_COUNTS.t[4])).mask() << 4);
    return below ? std::countr_zero(unsigned(below)) + 1 : MAX_POINTS;
}

/// Places a squared distance in the first slot it beats; nothing shifts down.
/// The slots stay ascending, so "first slot it beats" is the first lane of the
/// comparison mask.
inline Float4 place(Float4 slots, float d) {
    Float4 const dv(d);
    Float4 const beats = dv < slots;
    Float4 const first = Wide::andNot(Wide::shiftLanesUp(beats), beats);
    return select(first, dv, slots);
}

/// The generator state of a point coordinate with its top bit flipped, read as
/// signed: s * 2^-32 - 0.5 up to one rounding. Folding the flip into the
/// constants makes it a multiply, an add and a conversion.
constexpr Jumps makeCentredJumps() {
    Jumps j = JUMPS;
    for (auto& axis : j.c)
        for (auto& c : axis) c ^= 0x80000000u;
    return j;
}
constexpr Jumps CENTRED_JUMPS = makeCentredJumps();

inline Int4 jumpState(Jumps const& table, int axis, int group, Int4 s) {
    Int4 const a = Wide::loadInt4(&table.a[axis][4 * group]);
    Int4 const c = Wide::loadInt4(&table.c[axis][4 * group]);
    return Wide::multiplyLow(a, s) + c;
}

/// Visits the cell with integer corner k = (kx, ky, kz, 0). `margin` bounds the
/// difference between the quick centred distances and the exact ones, so the
/// quick pass only rules out points that cannot reach a slot. Only the first
/// `Needed` slots are kept exact: a point at or past slot Needed - 1 could only
/// change the later ones (the slots ascend and only ever shrink).
template <int Needed> inline void visitCell(Float4 p, Float4 k, Float4& slots, float margin) {
    // Seed in single precision, truncated: (541 kx + 79 ky) + 31 kz.
    Float4 const weighted = k * Float4(541.f, 79.f, 31.f, 0.f);
    float const seedF = (lane<0>(weighted) + lane<1>(weighted)) + lane<2>(weighted);
    std::uint32_t const seed = std::uint32_t(lane<0>(truncateToInt(Float4(seedF))));
    std::uint32_t const state = seed * LCG_A + LCG_C;
    int const n = countPoints(state);
    int const groups = (n + 3) >> 2;
    Int4 const s = Int4(std::int32_t(state));

    // Quick pass: distances from p to the points measured from the cell centre.
    Float4 const q = p - k - Float4(0.5f);
    Float4 const qx = broadcast<0>(q), qy = broadcast<1>(q), qz = broadcast<2>(q);
    float const f4 = lane<Needed - 1>(slots);
    Float4 const limit(f4 + (margin + f4 * 0x1p-20f));
    Float4 const scale(0x1p-32f);
    unsigned candidates = 0;
    for (int g = 0; g < groups; ++g) {
        Float4 const dx = qx - convertToFloat(jumpState(CENTRED_JUMPS, 0, g, s)) * scale;
        Float4 const dy = qy - convertToFloat(jumpState(CENTRED_JUMPS, 1, g, s)) * scale;
        Float4 const dz = qz - convertToFloat(jumpState(CENTRED_JUMPS, 2, g, s)) * scale;
        candidates |= unsigned((dx * dx + dy * dy + dz * dz < limit).mask()) << (4 * g);
    }
    candidates &= (1u << n) - 1u;
    if (!candidates) return;

    // Exact pass for the groups that hold candidates: the point is k + s * 2^-32.
    Float4 const kx = broadcast<0>(k), ky = broadcast<1>(k), kz = broadcast<2>(k);
    Float4 const px = broadcast<0>(p), py = broadcast<1>(p), pz = broadcast<2>(p);
    for (int g = 0; g < groups; ++g) {
        unsigned lanes = (candidates >> (4 * g)) & 15u;
        if (!lanes) continue;
        Float4 const dx = px - (kx + unitFloat(jumpState(JUMPS, 0, g, s)));
        Float4 const dy = py - (ky + unitFloat(jumpState(JUMPS, 1, g, s)));
        Float4 const dz = pz - (kz + unitFloat(jumpState(JUMPS, 2, g, s)));
        alignas(16) float ds[4];
        (dx * dx + dy * dy + dz * dz).store(ds);
        while (lanes) {
            int const i = std::countr_zero(lanes);
            lanes &= lanes - 1;
            slots = place(slots, ds[i]);
        }
    }
}

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addEnum("shape", CellularMap::Data::shapeType(), int(CellularMap::CellShape::CIRCULAR), "Shape",
              "CIRCULAR: round cells (distance to the nearest point); CHIPS: flat chips with dark borders");
    b.addColorOrMap("highColor", Rgb(1, 1, 1), "High color", "Colour (or map) at the largest cell values");
    b.addColorOrMap("midColor", Rgb(0.5f, 0.5f, 0.5f), "Middle color", "Colour (or map) at the cell value 0.5");
    b.addColorOrMap("lowColor", Rgb(0, 0, 0), "Low color", "Colour (or map) at the cell value 0");
    b.addUvMapper();
    b.addFloat("size", 0.3f, "Size", "Size of the cells in texture units")
        .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.001f));
    return b.build("Zatho.CellularMap");
}

} // namespace

SharedPtr<TypeDefinition const> const& CellularMap::Data::shapeType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.CellularMap.CellShape", {{0, "CIRCULAR"}, {1, "CHIPS"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& CellularMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

CellularMap::CellularMap() : IMap(Data::definition()) {}

SharedPtr<Entity> CellularMap::createNewInstance() const { return makeSharedPtr<CellularMap>(); }

Optional<int> CellularMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult CellularMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    OptimizedResult result;
    result.evaluator = makeSharedPtr<CellularEvaluator>(
        d.get<CellShape>("shape"), MapsDetail::colorOrMapEvaluator(d, "highColor"),
        MapsDetail::colorOrMapEvaluator(d, "midColor"), MapsDetail::colorOrMapEvaluator(d, "lowColor"),
        MapsDetail::evaluatorUvMapper(d), d.get<float>("size"));
    return result;
}

CellularEvaluator::CellularEvaluator(CellularMap::CellShape shape, ColorOrMap::Evaluator high,
                                     ColorOrMap::Evaluator mid, ColorOrMap::Evaluator low,
                                     SharedPtr<UvMapper const> uvMapper, float size)
    : mHigh(std::move(high)), mMid(std::move(mid)), mLow(std::move(low)),
      mUvw(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()),
      mFrequency(1.f / size), mSize(size) {
    switch (shape) {
    case CellularMap::CellShape::CIRCULAR:
        mWeights[0] = 1.f, mWeights[1] = 0.f, mWeights[2] = 0.f, mWeights[3] = 0.f;
        break;
    case CellularMap::CellShape::CHIPS:
        mWeights[0] = -1.f, mWeights[1] = 1.f, mWeights[2] = 0.f, mWeights[3] = 0.f;
        break;
    default: Detail::throwStopException("maps/CellularMap", 261);
    }
    // The value reads the slots up to the last weighted one; the search keeps only those exact.
    mNeededSlots = mWeights[1] != 0.f ? 2 : 1;
}

StaticArray<float, 8> const& CellularEvaluator::pointCountTable() { return POINT_COUNTS.t; }

int CellularEvaluator::pointCount(std::uint32_t state) { return countPoints(state); }

namespace {

template <int Needed> StaticArray<float, 4> slotsUpTo(Pos const& point) {
    float const inf = std::numeric_limits<float>::infinity();
    Float4 slots(inf);
    Float4 const p(point.x, point.y, point.z, 0.f);
    Float4 const c = floor(p);
    // Rounding of the exact point (k + s 2^-32, at the spacing of k) and of the
    // quick one both stay below a few units of (|p| + 2) 2^-23 per axis.
    float const reach = std::max(std::max(std::fabs(point.x), std::fabs(point.y)), std::fabs(point.z)) + 3.f;
    float const margin = reach * 0x1p-17f;
    visitCell<Needed>(p, c, slots, margin);

    // Squared distances from p to the boxes of the neighbour cells c + o and
    // c - o, four directions at a time: per axis the way to the face toward o.
    Float4 const below = p - c;
    Float4 const above = Float4(1.f) - below;
    alignas(16) float plusDistance[16], minusDistance[16];
    for (int v = 0; v < 16; v += 4) {
        Float4 plus(0.f), minus(0.f);
        auto axis = [&](float const* offsets, Float4 up, Float4 down) {
            Float4 const o = Float4::load(offsets + v);
            Float4 const pos = o > Float4(0.f), neg = o < Float4(0.f);
            Float4 const a = (pos & up) | (neg & down), b = (pos & down) | (neg & up);
            plus += a * a;
            minus += b * b;
        };
        axis(NEIGHBOUR_AXES[0], broadcast<0>(above), broadcast<0>(below));
        axis(NEIGHBOUR_AXES[1], broadcast<1>(above), broadcast<1>(below));
        axis(NEIGHBOUR_AXES[2], broadcast<2>(above), broadcast<2>(below));
        plus.store(plusDistance + v);
        minus.store(minusDistance + v);
    }
    for (int i = 0; i < 13; ++i) {
        Float4 const o = Float4::load(NEIGHBOURS[i]);
        if (plusDistance[i] < lane<Needed - 1>(slots)) visitCell<Needed>(p, c + o, slots, margin);
        if (minusDistance[i] < lane<Needed - 1>(slots)) visitCell<Needed>(p, c - o, slots, margin);
    }
    alignas(16) StaticArray<float, 4> out;
    slots.store(out.data());
    return out;
}

} // namespace

StaticArray<float, 4> CellularEvaluator::distanceSlots(Pos const& point) { return slotsUpTo<4>(point); }

StaticArray<float, 4> CellularEvaluator::distanceSlots(Pos const& point, int needed) {
    switch (needed) {
    case 1: return slotsUpTo<1>(point);
    case 2: return slotsUpTo<2>(point);
    case 3: return slotsUpTo<3>(point);
    default: return slotsUpTo<4>(point);
    }
}

float CellularEvaluator::valueFromSlots(StaticArray<float, 4> const& slots) const {
    // A zero weight leaves its term out, so an unfilled (infinite) slot that
    // the shape does not use cannot turn the value into NaN.
    float v = 0.f;
    for (int i = 0; i < 4; ++i)
        if (mWeights[i] != 0.f) v += mWeights[i] * std::sqrt(slots[std::size_t(i)]);
    return v;
}

float CellularEvaluator::cellValue(Pos const& uvw) const {
    Pos const p(uvw.x * mFrequency, uvw.y * mFrequency, uvw.z * mFrequency);
    return valueFromSlots(mNeededSlots == 1 ? slotsUpTo<1>(p) : slotsUpTo<2>(p));
}

RgbAlpha CellularEvaluator::colorForValue(float v, IShadeContext const& context, MapCache* cache) const {
    if (v >= 0.f && v < 0.5f) return MapsDetail::mix(mLow.evalColor(context, cache), mMid.evalColor(context, cache), 2.f * v);
    // Not clamped: values past 1 extrapolate beyond the high colour.
    float const t = (v - 0.5f) + (v - 0.5f);
    return MapsDetail::mix(mMid.evalColor(context, cache), mHigh.evalColor(context, cache), t);
}

MonoAlpha CellularEvaluator::monoForValue(float v, IShadeContext const& context, MapCache* cache) const {
    if (v >= 0.f && v < 0.5f) return MapsDetail::mix(mLow.evalMono(context, cache), mMid.evalMono(context, cache), 2.f * v);
    float const t = (v - 0.5f) + (v - 0.5f);
    return MapsDetail::mix(mMid.evalMono(context, cache), mHigh.evalMono(context, cache), t);
}

RgbAlpha CellularEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return colorForValue(cellValue(mUvw->computeUvw(context)), context, cache);
}

MonoAlpha CellularEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    return monoForValue(cellValue(mUvw->computeUvw(context)), context, cache);
}

Dir CellularEvaluator::evalBump(IShadeContext const& context, MapCache*) const {
    return BumpConverterMap::evalBump(context, *this, *mUvw, mBumpStrength, mSize);
}

FERRIM_REGISTER_ENTITY(CellularMap);

} // namespace Quelin
