#pragma once
// Feeds an input map with texture coordinates changed at random per object,
// instance or face (and optionally per UV tile), so repeated textures do not
// look the same everywhere. The input reads the changed coordinates through
// its own UV mapper, from every channel.
//
// Per point the random key is the id of "randomBy" (object id, instance id,
// face index, or none) and "seed"; with "perTile" also the integer tile
// (floor u, floor v) of the channel's coordinates. The key's hash gives
// uniform numbers for: an offset in [-offsetU, offsetU] x [-offsetV, offsetV],
// a rotation in [-rotation, rotation] degrees, a uniform scale in
// [scaleMin, scaleMax], and, when enabled, mirror flips of u and v (each with
// probability 1/2). The change is, about the centre of the unit square (of
// the tile with perTile): uv' = centre + R S F (uv - centre) + offset.
// Footprints scale with S, and the bump frame follows the change, so the
// input's bump still points the right way on the surface.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT MappingRandomizerMap : public IMap {
public:
    enum class RandomBy : int { ObjectId = 0, InstanceId, FaceIndex, None };
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& randomByType();
    };
    MappingRandomizerMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;

    /// The random change of one key: uv' = centre + linear (uv - centre) + offset.
    struct Change {
        float m00, m01, m10, m11;  ///< the 2x2 linear part, row-major
        float offsetU, offsetV;
    };
};

class FERRIM_EXPORT MappingRandomizerEvaluator : public IMapEvaluator {
public:
    struct Settings {
        MappingRandomizerMap::RandomBy randomBy = MappingRandomizerMap::RandomBy::ObjectId;
        std::uint32_t seed = 0;
        bool perTile = false;
        float offsetU = 0, offsetV = 0;
        float rotation = 0;  ///< radians
        float scaleMin = 1, scaleMax = 1;
        bool flipU = false, flipV = false;
        int uvChannel = 1;
    };
    MappingRandomizerEvaluator(SharedPtr<IMapEvaluator> input, Settings const& settings);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The change at a key (the id and, with perTile, the tile).
    MappingRandomizerMap::Change changeFor(std::uint32_t id, int tileU, int tileV) const;

private:
    template <typename F> auto withChangedUvw(IShadeContext const& context, F const& f) const;
    SharedPtr<IMapEvaluator> mInput;
    Settings mSettings;
};

} // namespace Quelin
