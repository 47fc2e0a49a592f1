#pragma once
// Texture-space coordinates of a shading point, with the placement
// conventions of 3ds Max's standard UV generator.
//
// Placement (compute3dsMaxStdUvGenTransform): rows are combined by
// left-multiplication, in this order: translate by -offset; permute rows by
// the plane selection; translate by -c (c = 0.5 unless real-world scale or
// forced origin, then 0); rotate about X, then Y, then Z (the row form
//   X: r1' = cos r1 - sin r2, r2' = sin r1 + cos r2
//   Y: r2' = cos r2 - sin r0, r0' = sin r2 + cos r0
//   Z: r0' = cos r0 - sin r1, r1' = sin r0 + cos r1);
// scale each row (translation too when "isOffsetScaled"); translate by +c;
// finally, with mirroring, double the U and V rows whose wrap is Mirror.
//
// Mapping modes: 0 reads the channel's UVW from the shade context; 1 uses the
// object-space position, 2 the world-space position; 3 projects on screen
// (or, for environment rays, the view direction through the spherical
// mapping). The placement transform is applied to the point in every mode.
//
// Wrap, per axis of the placed point (u or v): NoTiling keeps the coordinate
// and flags the point outside when it leaves [0, 1]; Repeat takes frac(x);
// Mirror folds the doubled coordinate back, frac of x/2 reflected so tiles
// alternate; Clamp clamps to [0, 1].
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

    /// The placed (not yet wrapped) UVW point of the shading point.
    Pos computeUvw(IShadeContext const& context) const;
    /// Filter width of the placed UVW in each axis.
    Dir computeDUvw(IShadeContext const& context) const;
    /// Applies the wrap modes of U and V to a placed point.
    WrappedUvw wrap(Pos const& uvw) const;
    /// The frame that turns a UV-space gradient into a shading-space perturbation.
    Matrix33 computeBumpBase(IShadeContext const& context) const;

    static Dir computeTriangleDUvw(StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws);
    /// Columns: tangent along u, tangent along v, normal (orthonormalised when
    /// `normalize` is set). Degenerate UVs fall back to an arbitrary frame
    /// around the normal.
    static Matrix33 bumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws,
                             bool normalize);
    /// The same frame built from the projected position gradients
    /// (least squares), stable for sliver triangles.
    static Matrix33 generalizedBumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions,
                                        StaticArray<Pos, 3> const& uvws, bool normalize);
    /// Frame from a normal and the two position derivatives dP/du and dP/dv.
    static Matrix33 bumpBaseFromTangents(Dir const& normal, Dir const& dpdu, Dir const& dpdv);
    /// Screen UV in [0, 1]^2 for camera rays (scaled about the centre by
    /// `scale`), spherical UV of the view direction for environment rays.
    static Vector2 computeScreenEnviroUv(IShadeContext const& context, float scale);
    /// Spherical mapping of a unit direction rotated by `rotation` radians.
    static Pos sphericalMapping(Dir const& direction, float rotation);
    /// Axis of the largest absolute component; ties go to the later axis.
    static int dominantAxis(Dir const& d);

protected:
    void onDataChanged(StringView propertyName) override;

private:
    void refresh();
    UvMapping mMapping;
    UvMappingMode mMode = UvMappingMode::UvChannel;
    AffineTm mTransform;        ///< with mirroring
};

/// Wrap one coordinate; `inside` is cleared for NoTiling outside [0, 1].
FERRIM_EXPORT float wrapCoordinate(float x, WrapMode mode, bool& inside);

} // namespace Quelin
