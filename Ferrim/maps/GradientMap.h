#pragma once
// A gradient parameter from the mapped UV by one of nine shapes, looked up in
// a sorted list of colour-or-map stops with a per-stop easing.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

class FERRIM_EXPORT GradientMap : public IMap {
public:
    /// Labels "box", "diagonal", "linear", "mapped", "pong", "radial", "spiral", "sweep", "tartan".
    enum class Type : int { Box = 0, Diagonal, Linear, Mapped, Pong, Radial, Spiral, Sweep, Tartan };
    /// Labels "ease_in", "ease_out", "ease_in_out", "linear", "solid".
    enum class Interpolation : int { EaseIn = 0, EaseOut, EaseInOut, Linear, Solid };

    /// One stop of the list: "name", "color", "position", "interpolation".
    struct GradientStop {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static GenericDataObject make(String name, Rgb const& color, float position,
                                      Interpolation interpolation = Interpolation::Linear);
    };

    /// "uvMapper", "type", "defaultInterpolation", "customInterpolation", "stops", "sourceMap".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& typeType();
        static SharedPtr<TypeDefinition const> const& interpolationType();
    };

    class FERRIM_EXPORT Evaluator : public IMapEvaluator {
    public:
        struct Stop {
            float position = 0.f;
            Interpolation interpolation = Interpolation::Linear;
            ColorOrMap::Evaluator color;
        };

        /// Sorts the stops by position (stable); an empty list becomes one
        /// black stop at 0.5 with `defaultInterpolation`.
        Evaluator(Type type, SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator sourceMap, Stack<Stop> stops,
                  Interpolation defaultInterpolation = Interpolation::Linear);

        /// Black with alpha 1 outside the tiled area.
        RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
        /// 0 with alpha 1 outside the tiled area.
        MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
        /// The stops' bumps blended like their colours; constant stops give none.
        Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

        /// The gradient parameter at a wrapped point (u, v in [0, 1)); stops
        /// (maps/GradientMap, 269) for a type outside the enumeration.
        float parameter(Pos const& uvw, IShadeContext const& context, MapCache* cache) const;
        /// The weight of the right stop at the fraction f; stops
        /// (maps/GradientMap, 73) for an interpolation outside the enumeration.
        static float interpolationWeight(Interpolation interpolation, float f);
        Stack<Stop> const& getStops() const { return mStops; }

    private:
        /// The wrapped point, or empty outside the tiled area.
        Optional<Pos> wrappedUvw(IShadeContext const& context) const;
        template <typename R, typename ValueOf> R lookup(float t, ValueOf const& valueOf) const;

        Type mType;
        SharedPtr<UvMapper const> mUvw;
        ColorOrMap::Evaluator mSourceMap;
        Stack<Stop> mStops;
    };

    GradientMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

} // namespace Quelin
