#pragma once
// The map model: a map entity builds, once per render, an immutable evaluator
// that render threads call at every shading point.
#include "Ferrim/IShadeContext.h"
#include "QuelinLib/DataObjects.h"

namespace Quelin {

/// Opaque per-thread cache that the renderer passes down; maps hand it on.
class MapCache;

/// Where one lookup of a batch reads a map: the UVW that every UV channel
/// answers, and its footprint.
struct MapLookupPoint {
    Pos uvw;
    Dir dUvw;
};

/// Evaluates a map at shading points. Immutable and shared by render threads.
class FERRIM_EXPORT IMapEvaluator : public Polymorphic, public Noncopyable {
public:
    virtual RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const = 0;
    virtual MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const = 0;
    /// Bump perturbation of the shading normal; (0, 0, 0) for a map without bump.
    virtual Dir evalBump(IShadeContext const& context, MapCache* cache) const = 0;

    /// Several lookups of one shading point in one call: `colors[i]` is what
    /// `evalColor` gives for `context` with its UVW and footprint replaced by
    /// `points[i]` on every channel (an `OverridableUvwShadeContext`), bit for
    /// bit. `colors` holds at least as many entries as `points`. The default
    /// evaluates one point after the other; maps that can overlap the lookups'
    /// memory reads, or pay their per-point dispatch once, override it.
    virtual void evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points,
                            std::span<RgbAlpha> colors, MapCache* cache) const;
    /// The same for `evalMono`.
    virtual void evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points,
                           std::span<MonoAlpha> monos, MapCache* cache) const;
};

/// Base of every texture map.
class FERRIM_EXPORT IMap : public Entity {
public:
    struct OptimizedResult {
        SharedPtr<IMapEvaluator> evaluator;  ///< never null
        RgbAlpha constantColor = RgbAlpha::unset();
        MonoAlpha constantMono = MonoAlpha::unset();
        std::uint8_t hasConstant = 0;        ///< 1: the same result everywhere
    };

    using Entity::Entity;

    /// Yes for every map of this library: the map can be evaluated.
    virtual bool isEvaluable() const { return true; }
    /// The UV channel that the map reads itself through a UvMapper, if any.
    virtual Optional<int> getOwnUvChannel() const { return std::nullopt; }
    /// Builds the evaluator from the record; called once per render set-up.
    virtual OptimizedResult getEvaluatorImpl() const = 0;
    OptimizedResult getEvaluator() const { return getEvaluatorImpl(); }

protected:
    /// The channel of the first UV-channel mapper (or UV-aware map) reachable
    /// from this map; 0 when none answers.
    int deduceUvChannelFromGraph() const;
};

/// Folds a constant colour into an evaluator and the result's constants.
FERRIM_EXPORT IMap::OptimizedResult makeConstantResult(RgbAlpha const& color);

/// A plain colour and alpha.
class FERRIM_EXPORT ConstantColorMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    ConstantColorMap();
    ConstantColorMap(Rgb const& color, float alpha);
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// Stands in for a map type the renderer cannot evaluate.
class FERRIM_EXPORT UnsupportedMap : public IMap {
public:
    /// What the placeholder shows: red marks it in previews, white keeps the
    /// material neutral, Invalid poisons the result so a renderer can detect it.
    enum class Look : int { Red = 0, White = 1, Invalid = 2 };
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    UnsupportedMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

} // namespace Quelin
