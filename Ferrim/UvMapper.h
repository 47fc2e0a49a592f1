#pragma once
// Texture-space coordinates of a shading point, with the placement
// conventions of 3ds Max's standard UV generator.
//
// Placement (compute3dsMaxStdUvGenTransform): rows are combined by
// left-multiplication, in this order: translate by -offset; permute rows by
// the plane selection (1: rows y, z, x; 2: rows z, x, y); translate by -c
// (c = 0.5 unless real-world scale or forced origin, then 0); rotate about X,
// then Y, then Z (the row form
//   X: r1' = cos r1 - sin r2, r2' = sin r1 + cos r2
//   Y: r2' = cos r2 - sin r0, r0' = sin r2 + cos r0
//   Z: r0' = cos r0 - sin r1, r1' = sin r0 + cos r1,
// so the linear part is S Rz Ry Rx P); scale each row (translation too when
// "isOffsetScaled"); translate by +c; finally, with mirroring, double the U
// and V rows whose wrap is Mirror. The update inverts these steps with the
// flags and wrap modes as they stand: it undoes the mirror and the pivot,
// takes the row lengths as the tiling (the U tiling negative for a mirrored
// linear part), tries the three plane selections and keeps the one whose
// rotation turns least (the current one on ties), reads the X-Y-Z Euler
// angles and solves the offset. It accepts the result only when it rebuilds
// the given transform; shears and the like are refused.
//
// Mapping modes: 0 reads the channel's UVW from the shade context; 1 uses the
// object-space position, 2 the world-space position; 3 projects on screen
// (or, for environment rays, the view direction through the spherical
// mapping, turned by "enviroTransform" when "rotateEnviro" is set). Particle
// and hair points always read the channel. The placement transform is
// applied to the point in every mode.
//
// Footprint (computeDUvw): the source footprint (the channel's dUVW; the ray
// footprint on all three axes for the position modes, carried into object
// space for mode 1; one pixel of the image for screen projection) times the
// absolute values of the placement's linear part.
//
// Wrap, per axis of the placed point (u or v): NoTiling keeps the coordinate
// and flags the point outside when it leaves [0, 1]; Repeat takes frac(x) in
// [0, 1) (1 and 0 both give 0); Mirror is the period-2 triangle wave
// t = x - 2 floor(x / 2), t <= 1 ? t : 2 - t, so tiles alternate (1 gives 1,
// 2 gives 0); Clamp clamps to [0, 1]. A NaN or infinite coordinate wraps to 0
// in the tiling modes, so lookups stay inside the texture.
//
// Bump frames: a Matrix33 whose columns are dP/du, dP/dv and the normal. It
// maps a UV-space gradient (du, dv, 0) to the world perturbation
// du * dP/du + dv * dP/dv.
#include <cmath>

#include "Ferrim/IMap.h"

namespace Quelin {

enum class WrapMode : int { NoTiling = 0, Repeat = 1, Mirror = 2, Clamp = 3 };
enum class UvMappingMode : int { UvChannel = 0, ObjectXyz = 1, WorldXyz = 2, ScreenEnviro = 3 };

/// The result of wrapping a placed point.
struct WrappedUvw {
    Pos uvw;
    bool inside = true;  ///< false when a NoTiling axis left [0, 1]
};

class FERRIM_EXPORT UvMapper : public Entity {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& wrapModeType();
        static SharedPtr<TypeDefinition const> const& mappingModeType();
    };

    /// The placement parameters, the same fields and order as the record.
    struct UvMapping {
        WrapMode wrapU = WrapMode::Repeat;
        WrapMode wrapV = WrapMode::Repeat;
        Pos offset{0, 0, 0};
        Pos rotation{0, 0, 0};  ///< radians about X, Y, Z
        Pos scale{1, 1, 1};
        bool isOffsetScaled = false;
        bool useRealWorldScale = false;
        bool forceRotationAroundOrigin = false;
        AffineTm enviroTransform;
        bool rotateEnviro = false;
        int uvwMapChannel = 1;
        int uvPlaneSelection = 0;

        AffineTm compute3dsMaxStdUvGenTransform(bool withMirror) const;
        /// Sets the placement from a transform built by the same steps; false
        /// (and nothing changed) when the transform is not of that form.
        bool updateFrom3dsMaxStdUvGenTransform(AffineTm const& tm, bool withMirror);
    };

    UvMapper();
    SharedPtr<Entity> createNewInstance() const override;

    /// A frozen copy for an evaluator: later edits of this mapper do not reach it.
    SharedPtr<UvMapper const> snapshot() const;

    UvMapping const& getMapping() const { return mMapping; }
    UvMappingMode getMappingMode() const { return mMode; }
    int getChannel() const { return mMapping.uvwMapChannel; }
    AffineTm const& getTransform() const { return mTransform; }

    /// The placed (not yet wrapped) UVW point of the shading point. Inline for
    /// the common mapper that reads a UV channel: every shaded kind reads the
    /// channel then, so the point is the channel's UVW, placed when the
    /// placement is not the identity.
    Pos computeUvw(IShadeContext const& context) const {
        switch (mShortcut) {
        case ChannelShortcut::AsIs: return context.getUvw(mMapping.uvwMapChannel);
        case ChannelShortcut::Placed: return mTransform.transformPoint(context.getUvw(mMapping.uvwMapChannel));
        case ChannelShortcut::None: break;
        }
        return mTransform.transformPoint(computeUnplacedUvw(context, mMode, mMapping));
    }
    /// Filter width of the placed UVW in each axis.
    Dir computeDUvw(IShadeContext const& context) const;
    /// Applies the wrap modes of U and V to a placed point.
    WrappedUvw wrap(Pos const& uvw) const;
    /// The frame that turns a gradient over the placed (u, v) into a world
    /// perturbation: the context's frame for the channel with its tangents
    /// combined by the placement's 2x2 block (chain rule), or, in the position
    /// modes, the world gradients of the placed u and v.
    Matrix33 computeBumpBase(IShadeContext const& context) const;

    /// UVW change per unit of world distance over a triangle: for each UVW axis
    /// the length of that coordinate's gradient in the triangle's plane (zero
    /// for a degenerate triangle). Multiply by a world footprint to get dUVW.
    static Dir computeTriangleDUvw(StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws);
    /// Columns: dP/du and dP/dv solved from the triangle's edges and UV
    /// differences, and the normal. With `normalize` the frame is made
    /// orthonormal (tangent projected off the normal, bitangent = normal x
    /// tangent, flipped to follow dP/dv). Degenerate UVs fall back to an
    /// orthonormal frame around the normal.
    static Matrix33 bumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws,
                             bool normalize);
    /// The same frame built the other way round: the world gradients of u and
    /// v over the triangle, then dP/d(u, v) as their pseudo-inverse
    /// G (G^T G)^-1. Equal to `bumpBase` for a regular triangle.
    static Matrix33 generalizedBumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions,
                                        StaticArray<Pos, 3> const& uvws, bool normalize);
    /// Frame from a normal and the two position derivatives dP/du and dP/dv.
    static Matrix33 bumpBaseFromTangents(Dir const& normal, Dir const& dpdu, Dir const& dpdv);
    /// Screen UV in [0, 1]^2 for camera rays (scaled about the centre by
    /// `scale`), spherical UV of the view direction for environment rays.
    static Vector2 computeScreenEnviroUv(IShadeContext const& context, float scale);
    /// The point a mapping mode reads before placement (Particle and Hair
    /// points always read the channel). An unknown mode is an internal error.
    static Pos computeUnplacedUvw(IShadeContext const& context, UvMappingMode mode, UvMapping const& mapping);
    /// Coordinates in [0, 1]^2 on the cube face of `axis` (0 x, 1 y, 2 z) that
    /// `d` hits: the two other components in cyclic order, divided by the
    /// dominant one. Any other axis is an internal error.
    static Vector2 cubeFaceUv(Dir const& d, int axis);
    /// Spherical mapping of a unit direction rotated by `rotation` radians.
    static Pos sphericalMapping(Dir const& direction, float rotation);
    /// Axis of the largest absolute component; ties go to the later axis.
    static int dominantAxis(Dir const& d);

protected:
    void onDataChanged(StringView propertyName) override;

private:
    void refresh();
    enum class ChannelShortcut : std::uint8_t { None, AsIs, Placed };
    UvMapping mMapping;
    UvMappingMode mMode = UvMappingMode::UvChannel;
    AffineTm mTransform;        ///< with mirroring
    ChannelShortcut mShortcut = ChannelShortcut::AsIs;
};

/// Wrap one coordinate; `inside` is cleared for NoTiling outside [0, 1].
FERRIM_EXPORT float wrapCoordinate(float x, WrapMode mode, bool& inside);

/// The same for a mode known when the caller is compiled (per-sample code
/// that resolves its modes once).
template <WrapMode M> inline float wrapCoordinate(float x, bool& inside) {
    if constexpr (M == WrapMode::NoTiling) {
        if (!(x >= 0.f && x <= 1.f)) inside = false;
        return x;
    } else if constexpr (M == WrapMode::Repeat) {
        // The largest float below 1: frac of a tiny negative value must stay in [0, 1).
        constexpr float BELOW_ONE = 0.99999994f;
        float const r = x - std::floor(x);
        if (r >= 0.f && r < 1.f) [[likely]]
            return r;
        return r >= 1.f ? BELOW_ONE : 0.f;  // NaN and infinities land on 0
    } else if constexpr (M == WrapMode::Mirror) {
        // Period 2: forward over [0, 1], reflected over [1, 2].
        float t = x - 2.f * std::floor(x * 0.5f);
        if (!(t < 2.f)) [[unlikely]]
            t = 0.f;
        return t <= 1.f ? t : 2.f - t;
    } else {
        return x > 0.f ? (x < 1.f ? x : 1.f) : 0.f;  // NaN gives 0
    }
}

} // namespace Quelin
