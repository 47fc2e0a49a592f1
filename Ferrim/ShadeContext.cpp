#include "Ferrim/IShadeContext.h"

#include "Ferrim/UvMapper.h"

namespace Quelin {

namespace {
Pos unsetPos() { return Pos(unsetFloat(), unsetFloat(), unsetFloat()); }
Dir unsetDir() { return Dir(unsetFloat(), unsetFloat(), unsetFloat()); }
} // namespace

UvwDerivatives IShadeContext::getUvwDerivatives(int uvChannel) const {
    Dir const w = getDUvw(uvChannel);
    return {Dir(w.x, 0.f, 0.f), Dir(0.f, w.y, w.z)};
}

UvwDerivatives OverridableShadeContext::getUvwDerivatives(int uvChannel) const {
    Dir const own = getDUvw(uvChannel), parents = mParent.getDUvw(uvChannel);
    if (own.x == parents.x && own.y == parents.y && own.z == parents.z) return mParent.getUvwDerivatives(uvChannel);
    return IShadeContext::getUvwDerivatives(uvChannel);
}

Matrix33 NullShadeContext::getBumpBase(int) const {
    float const n = unsetFloat();
    return Matrix33(n, n, n, n, n, n, n, n, n);
}
Pos NullShadeContext::getUvw(int, std::uint32_t) const { return unsetPos(); }
Dir NullShadeContext::getDUvw(int) const { return unsetDir(); }
Dir NullShadeContext::getDpDu(int) const { return unsetDir(); }
Dir NullShadeContext::getDpDv(int) const { return unsetDir(); }
PrecisePos NullShadeContext::getPosition() const {
    double const n = double(unsetFloat());
    return PrecisePos(n, n, n);
}
Pos NullShadeContext::getObjectPosition() const { return unsetPos(); }
Dir NullShadeContext::getNormal() const { return unsetDir(); }
Dir NullShadeContext::getGeometricNormal() const { return unsetDir(); }
Dir NullShadeContext::getObjectNormal() const { return unsetDir(); }
Dir NullShadeContext::getViewDirection() const { return unsetDir(); }
float NullShadeContext::getPositionFootprint() const { return unsetFloat(); }
AffineTm NullShadeContext::getObjectToWorld() const { return AffineTm::identity(); }
AffineTm NullShadeContext::getWorldToCamera() const { return AffineTm::identity(); }
bool NullShadeContext::isBackFace() const { return false; }
int NullShadeContext::getFaceIndex() const { return -1; }
RayKind NullShadeContext::getRayKind() const { return RayKind::Camera; }
ShadedKind NullShadeContext::getShadedKind() const { return ShadedKind::Surface; }
int NullShadeContext::getRayDepth() const { return 0; }
bool NullShadeContext::wantsFilteredLookup() const { return false; }
float NullShadeContext::getTime() const { return unsetFloat(); }
Pixel NullShadeContext::getPixel() const { return Pixel::unknown(); }
Vector2 NullShadeContext::unprojectPoint(Optional<PrecisePos> const&, UnprojectPoint) const {
    return Vector2(unsetFloat(), unsetFloat());
}
BoundingBox<Pos> NullShadeContext::getObjectBbox() const { return BoundingBox<Pos>(); }
Vector2 NullShadeContext::generateRandom2() const { return Vector2(unsetFloat(), unsetFloat()); }
Pixel NullShadeContext::getImageSize() const { return Pixel::unknown(); }
BoundingBox<Pos> NullShadeContext::getSceneBbox() const { return BoundingBox<Pos>(); }
int NullShadeContext::getObjectId() const { return -1; }
int NullShadeContext::getInstanceId() const { return -1; }
Rgb NullShadeContext::getVertexColor(int) const { return Rgb::invalid(); }
Rgb NullShadeContext::colorUnMap(Rgb const&, Flags<ColorMappingExclude>) const { return Rgb::invalid(); }
String const& NullShadeContext::getMaterialName() const {
    // Created on first use (thread-safe) and kept until the library is unloaded.
    static String const sEmpty;
    return sEmpty;
}

Matrix33 OverridableUvwShadeContext::getBumpBase(int uvChannel) const {
    if (!mOverrideBumpBase) return OverridableShadeContext::getBumpBase(uvChannel);
    return UvMapper::bumpBaseFromTangents(getParent().getNormal(), mDpDu, mDpDv);
}

// A context without a scene finds nothing, so maps give their "nothing found" result.
Optional<UserPropertyValue> NullShadeContext::getUserProperty(StringView) const { return std::nullopt; }
Optional<float> NullShadeContext::traceOcclusion(PrecisePos const&, Dir const&, float) const { return std::nullopt; }
Optional<SceneHit> NullShadeContext::traceNearest(PrecisePos const&, Dir const&, float) const { return std::nullopt; }
Optional<ShadedTriangle> NullShadeContext::getTriangle() const { return std::nullopt; }
Optional<float> NullShadeContext::findNearestObjectDistance(PrecisePos const&, float, std::span<int const>) const {
    return std::nullopt;
}

} // namespace Quelin
