#pragma once
// Shows a property of the shading point as a colour, for people debugging a
// scene: UVW of a channel (as it is), normals and the tangent frame encoded
// as 0.5 + 0.5 n, the ray depth and the footprint as grey levels scaled by
// "scale" (a NaN or infinite scale counts as 1), the face, object or
// material id as a stable random colour, and back faces as red over green
// fronts.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT DebugMap : public IMap {
public:
    enum class Show : int {
        Uvw = 0, Normal, GeometricNormal, Tangent, Bitangent, RayDepth, UvwFootprint, PositionFootprint, FaceIndex,
        ObjectId, MaterialName, BackFace
    };
    /// "show", "uvChannel", "scale".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& showType();
    };
    DebugMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    /// A colour in [0.1, 1]^3 that a different id almost surely changes.
    static Rgb idColor(std::uint32_t id);
};

} // namespace Quelin
