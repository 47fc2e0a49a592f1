#pragma once
// The renderer's view of one shading point, and the wrappers through which
// compositing maps evaluate inputs with changed coordinates or footprints.
#include "Ferrim/ColorMappingExclude.h"
#include "Ferrim/Export.h"
#include "QuelinLib/Types.h"

#include <span>

namespace Quelin {

/// What kind of ray reached the shading point.
enum class RayKind : std::uint32_t { Camera = 0, Reflection, Refraction, Diffuse, Shadow, Light };

/// What is being shaded. `Particle` and `Hair` carry their own UVWs, so UV
/// mappers read the channel directly from the context for them.
enum class ShadedKind : std::uint32_t { Surface = 0, Volume, Environment, Background, Particle, Hair };

/// Flags of `getUvw`.
enum class UvwFlag : std::uint32_t { None = 0, NoWrap = 0x1 };

/// How a channel's UVW moves from the shaded pixel to its neighbour along the
/// image's x and along its y: the footprint's shape, not only its size.
struct UvwDerivatives {
    Dir dx, dy;
};

/// A named value the renderer attaches to an object (a user property).
using UserPropertyValue = Variant<float, Rgb, String>;

/// The first surface a traced ray meets.
struct SceneHit {
    float distance = 0.0f; ///< along the ray, in world units
    Dir normal;            ///< shading normal at the hit, world space, facing the ray's origin
    int objectId = 0;
};

/// The triangle the shading point lies on.
struct ShadedTriangle {
    StaticArray<Pos, 3> corners; ///< world space
    Pos barycentrics;            ///< weights of the three corners at the shading point
};

/// The renderer's description of one shading point. All answers are const;
/// a context belongs to one thread and one point.
class FERRIM_EXPORT IShadeContext : public Polymorphic {
public:
    enum class UnprojectPoint : std::uint32_t { Pixels = 0, Normalized = 1 };

    ~IShadeContext() override = default;

    // Texture coordinates.
    virtual Matrix33 getBumpBase(int uvChannel) const = 0;
    virtual Pos getUvw(int uvChannel, std::uint32_t flags = 0) const = 0;
    virtual Dir getDUvw(int uvChannel) const = 0;
    /// The channel's UVW derivatives along x and y, which anisotropic filtering
    /// follows (`getDUvw` is the width of the box around them). Contexts that
    /// know only the widths keep this default: the box's sides, (du, 0, 0)
    /// along x and (0, dv, dw) along y.
    virtual UvwDerivatives getUvwDerivatives(int uvChannel) const;
    /// Derivatives of the world position with respect to u and v of a channel.
    virtual Dir getDpDu(int uvChannel) const = 0;
    virtual Dir getDpDv(int uvChannel) const = 0;

    // Geometry.
    virtual PrecisePos getPosition() const = 0;        ///< world space
    virtual Pos getObjectPosition() const = 0;         ///< object space
    virtual Dir getNormal() const = 0;                 ///< shading normal, world space
    virtual Dir getGeometricNormal() const = 0;        ///< world space
    virtual Dir getObjectNormal() const = 0;           ///< shading normal, object space
    virtual Dir getViewDirection() const = 0;          ///< direction of the incoming ray, world space
    /// Width of the ray's footprint at the point, in world units.
    virtual float getPositionFootprint() const = 0;
    virtual AffineTm getObjectToWorld() const = 0;
    virtual AffineTm getWorldToCamera() const = 0;
    virtual bool isBackFace() const = 0;
    virtual int getFaceIndex() const = 0;

    // Ray and sample.
    virtual RayKind getRayKind() const = 0;
    virtual ShadedKind getShadedKind() const = 0;
    virtual int getRayDepth() const = 0;
    /// Whether maps should filter their lookups (off for e.g. baking).
    virtual bool wantsFilteredLookup() const = 0;
    virtual float getTime() const = 0;
    virtual Pixel getPixel() const = 0;

    // Scene and image.
    virtual Vector2 unprojectPoint(Optional<PrecisePos> const& point, UnprojectPoint mode) const = 0;
    virtual BoundingBox<Pos> getObjectBbox() const = 0;
    virtual Vector2 generateRandom2() const = 0;
    virtual Pixel getImageSize() const = 0;
    virtual BoundingBox<Pos> getSceneBbox() const = 0;
    virtual int getObjectId() const = 0;
    virtual int getInstanceId() const = 0;
    virtual Rgb getVertexColor(int channel) const = 0;
    /// The colour that, after the renderer's colour mapping without the
    /// excluded stages, gives `color` back.
    virtual Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude> exclude) const = 0;
    virtual String const& getMaterialName() const = 0;
    /// A named value of the shaded object; empty when the object has none.
    virtual Optional<UserPropertyValue> getUserProperty(StringView name) const = 0;

    // Scene queries, answered by the renderer from its acceleration structure.
    // Maps bound their own work (sample counts, distances); an empty answer
    // means nothing was found within `maxDistance` (or the renderer cannot say).
    /// Distance to the first surface along the ray.
    virtual Optional<float> traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const = 0;
    /// The first surface along the ray, with its normal and object.
    virtual Optional<SceneHit> traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const = 0;
    /// The triangle under the shading point, for maps that draw its edges.
    virtual Optional<ShadedTriangle> getTriangle() const = 0;
    /// Distance from `point` to the nearest surface of the objects in
    /// `objectIds` (every object when empty).
    virtual Optional<float> findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                                      std::span<int const> objectIds) const = 0;
};

/// A context that knows nothing: unset markers everywhere.
class FERRIM_EXPORT NullShadeContext : public IShadeContext {
public:
    Matrix33 getBumpBase(int uvChannel) const override;
    Pos getUvw(int uvChannel, std::uint32_t flags = 0) const override;
    Dir getDUvw(int uvChannel) const override;
    Dir getDpDu(int uvChannel) const override;
    Dir getDpDv(int uvChannel) const override;
    PrecisePos getPosition() const override;
    Pos getObjectPosition() const override;
    Dir getNormal() const override;
    Dir getGeometricNormal() const override;
    Dir getObjectNormal() const override;
    Dir getViewDirection() const override;
    float getPositionFootprint() const override;
    AffineTm getObjectToWorld() const override;
    AffineTm getWorldToCamera() const override;
    bool isBackFace() const override;
    int getFaceIndex() const override;
    RayKind getRayKind() const override;
    ShadedKind getShadedKind() const override;
    int getRayDepth() const override;
    bool wantsFilteredLookup() const override;
    float getTime() const override;
    Pixel getPixel() const override;
    Vector2 unprojectPoint(Optional<PrecisePos> const& point, UnprojectPoint mode) const override;
    BoundingBox<Pos> getObjectBbox() const override;
    Vector2 generateRandom2() const override;
    Pixel getImageSize() const override;
    BoundingBox<Pos> getSceneBbox() const override;
    int getObjectId() const override;
    int getInstanceId() const override;
    Rgb getVertexColor(int channel) const override;
    Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    String const& getMaterialName() const override;
    Optional<UserPropertyValue> getUserProperty(StringView name) const override;
    Optional<float> traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const override;
    Optional<SceneHit> traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const override;
    Optional<ShadedTriangle> getTriangle() const override;
    Optional<float> findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                              std::span<int const> objectIds) const override;
};

/// Forwards every operation to a parent; subclasses override single answers.
class FERRIM_EXPORT OverridableShadeContext : public IShadeContext {
public:
    explicit OverridableShadeContext(IShadeContext const& parent) : mParent(parent) {}
    /// Wrapping another wrapper takes it as the parent (a copy would take the
    /// other's parent and silently drop its overrides).
    OverridableShadeContext(OverridableShadeContext const& parent) : IShadeContext(), mParent(parent) {}
    OverridableShadeContext& operator=(OverridableShadeContext const&) = delete;
    IShadeContext const& getParent() const { return mParent; }

    Matrix33 getBumpBase(int uvChannel) const override { return mParent.getBumpBase(uvChannel); }
    Pos getUvw(int uvChannel, std::uint32_t flags = 0) const override { return mParent.getUvw(uvChannel, flags); }
    Dir getDUvw(int uvChannel) const override { return mParent.getDUvw(uvChannel); }
    /// The parent's while this wrapper answers the parent's footprint; a
    /// subclass that changes the footprint and says nothing of its shape
    /// answers the box of its own footprint.
    UvwDerivatives getUvwDerivatives(int uvChannel) const override;
    Dir getDpDu(int uvChannel) const override { return mParent.getDpDu(uvChannel); }
    Dir getDpDv(int uvChannel) const override { return mParent.getDpDv(uvChannel); }
    PrecisePos getPosition() const override { return mParent.getPosition(); }
    Pos getObjectPosition() const override { return mParent.getObjectPosition(); }
    Dir getNormal() const override { return mParent.getNormal(); }
    Dir getGeometricNormal() const override { return mParent.getGeometricNormal(); }
    Dir getObjectNormal() const override { return mParent.getObjectNormal(); }
    Dir getViewDirection() const override { return mParent.getViewDirection(); }
    float getPositionFootprint() const override { return mParent.getPositionFootprint(); }
    AffineTm getObjectToWorld() const override { return mParent.getObjectToWorld(); }
    AffineTm getWorldToCamera() const override { return mParent.getWorldToCamera(); }
    bool isBackFace() const override { return mParent.isBackFace(); }
    int getFaceIndex() const override { return mParent.getFaceIndex(); }
    RayKind getRayKind() const override { return mParent.getRayKind(); }
    ShadedKind getShadedKind() const override { return mParent.getShadedKind(); }
    int getRayDepth() const override { return mParent.getRayDepth(); }
    bool wantsFilteredLookup() const override { return mParent.wantsFilteredLookup(); }
    float getTime() const override { return mParent.getTime(); }
    Pixel getPixel() const override { return mParent.getPixel(); }
    Vector2 unprojectPoint(Optional<PrecisePos> const& point, UnprojectPoint mode) const override {
        return mParent.unprojectPoint(point, mode);
    }
    BoundingBox<Pos> getObjectBbox() const override { return mParent.getObjectBbox(); }
    Vector2 generateRandom2() const override { return mParent.generateRandom2(); }
    Pixel getImageSize() const override { return mParent.getImageSize(); }
    BoundingBox<Pos> getSceneBbox() const override { return mParent.getSceneBbox(); }
    int getObjectId() const override { return mParent.getObjectId(); }
    int getInstanceId() const override { return mParent.getInstanceId(); }
    Rgb getVertexColor(int channel) const override { return mParent.getVertexColor(channel); }
    Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude> exclude) const override {
        return mParent.colorUnMap(color, exclude);
    }
    String const& getMaterialName() const override { return mParent.getMaterialName(); }
    Optional<UserPropertyValue> getUserProperty(StringView name) const override { return mParent.getUserProperty(name); }
    Optional<float> traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        return mParent.traceOcclusion(origin, direction, maxDistance);
    }
    Optional<SceneHit> traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        return mParent.traceNearest(origin, direction, maxDistance);
    }
    Optional<ShadedTriangle> getTriangle() const override { return mParent.getTriangle(); }
    Optional<float> findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                              std::span<int const> objectIds) const override {
        return mParent.findNearestObjectDistance(point, maxDistance, objectIds);
    }

private:
    IShadeContext const& mParent;
};

/// Evaluates an input as if the point had other texture coordinates: every
/// channel answers the stored UVW and footprint.
class FERRIM_EXPORT OverridableUvwShadeContext : public OverridableShadeContext {
public:
    OverridableUvwShadeContext(IShadeContext const& parent, Pos const& uvw, Dir const& dUvw, Dir const& dpdu = Dir(),
                               Dir const& dpdv = Dir(), bool overrideBumpBase = false)
        : OverridableShadeContext(parent), mUvw(uvw), mDUvw(dUvw), mDpDu(dpdu), mDpDv(dpdv),
          mOverrideBumpBase(overrideBumpBase) {}
    OverridableUvwShadeContext(OverridableUvwShadeContext const&) = delete;

    Pos getUvw(int, std::uint32_t = 0) const override { return mUvw; }
    Dir getDUvw(int) const override { return mDUvw; }
    Dir getDpDu(int uvChannel) const override { return mOverrideBumpBase ? mDpDu : OverridableShadeContext::getDpDu(uvChannel); }
    Dir getDpDv(int uvChannel) const override { return mOverrideBumpBase ? mDpDv : OverridableShadeContext::getDpDv(uvChannel); }
    /// With the flag set, the frame follows the stored tangents (UvMapper::bumpBase
    /// of the parent's normal); otherwise the parent's frame.
    Matrix33 getBumpBase(int uvChannel) const override;

private:
    Pos mUvw;
    Dir mDUvw;
    Dir mDpDu, mDpDv;
    bool mOverrideBumpBase;
};

/// Widens the filter footprint of an input by a factor.
class FERRIM_EXPORT BlurringShadeContext : public OverridableShadeContext {
public:
    BlurringShadeContext(IShadeContext const& parent, float blur) : OverridableShadeContext(parent), mBlur(blur) {}
    BlurringShadeContext(BlurringShadeContext const&) = delete;
    Dir getDUvw(int uvChannel) const override { return OverridableShadeContext::getDUvw(uvChannel) * mBlur; }
    UvwDerivatives getUvwDerivatives(int uvChannel) const override {
        UvwDerivatives const d = getParent().getUvwDerivatives(uvChannel);
        return {d.dx * mBlur, d.dy * mBlur};
    }

private:
    float mBlur;
};

} // namespace Quelin
