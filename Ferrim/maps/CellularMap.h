#pragma once
// Worley's cellular texture basis: feature points scattered per unit cell,
// and the distances to the nearest ones choosing among three inputs.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

class FERRIM_EXPORT CellularMap : public IMap {
public:
    enum class CellShape : int { CIRCULAR = 0, CHIPS = 1 };

    /// "shape", "highColor", "midColor", "lowColor", "uvMapper", "size".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& shapeType();
    };

    CellularMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    /// Stops (maps/CellularMap, 261) for a shape outside the enumeration.
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT CellularEvaluator : public IMapEvaluator {
public:
    /// Stops (maps/CellularMap, 261) for a shape outside the enumeration.
    CellularEvaluator(CellularMap::CellShape shape, ColorOrMap::Evaluator high, ColorOrMap::Evaluator mid,
                      ColorOrMap::Evaluator low, SharedPtr<UvMapper const> uvMapper, float size);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

    /// The four distance slots F1..F4 (squared) at a point of cell space.
    static StaticArray<float, 4> distanceSlots(Pos const& p);
    /// The same with only F1..F`needed` (1 to 4) exact; the later slots are
    /// bounds, and the search skips what could only change them.
    static StaticArray<float, 4> distanceSlots(Pos const& p, int needed);
    /// The shape's weighted sum of the square roots of the slots; terms of zero weight are left out.
    float valueFromSlots(StaticArray<float, 4> const& slots) const;
    /// The cell value at a UVW point (scaled by the frequency first).
    float cellValue(Pos const& uvw) const;
    /// The blend of the three inputs for a cell value, upper branch unclamped.
    RgbAlpha colorForValue(float value, IShadeContext const& context, MapCache* cache) const;
    MonoAlpha monoForValue(float value, IShadeContext const& context, MapCache* cache) const;

    /// Poisson probabilities of 1..8 points per cell for a mean of 3, not accumulated.
    static StaticArray<float, 8> const& pointCountTable();
    /// The number of points of a cell for the first state of its generator.
    static int pointCount(std::uint32_t state);

    static constexpr float BUMP_STRENGTH = 20.f;

private:
    ColorOrMap::Evaluator mHigh, mMid, mLow;
    SharedPtr<UvMapper const> mUvw;
    float mWeights[4];
    int mNeededSlots = 1;
    float mFrequency;
    float mSize;
    float mBumpStrength = BUMP_STRENGTH;
};

} // namespace Quelin
