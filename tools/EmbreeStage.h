#pragma once
// The small world a swatch stands in, in an Embree scene, so that maps which
// ask the scene (occlusion, nearest surfaces, triangles, distances) get true
// answers from a real ray tracer.
//
// A sphere swatch is a unit sphere at the origin (camera looking along -z, y
// up) resting on a ground plane y = -1, with a box beside it at its lower
// right, a little in front. A plane swatch is the square [0, T]^2 of z = 0 (T its tiling) with a
// box standing on it in the upper right corner. Both swatches are tessellated;
// the sphere carries smooth vertex normals, flat faces their own.
#include <span>

#include "Ferrim/IShadeContext.h"
#include "Scene.h"

typedef struct RTCDeviceTy* RTCDevice;
typedef struct RTCSceneTy* RTCScene;

namespace FerrimTool {

class EmbreeStage {
public:
    /// Latitude bands of the tessellated sphere (twice as many segments round
    /// it): its faces lie within 1 - cos(pi / (sqrt(2) bands)), half a quad's
    /// diagonal, of the exact sphere.
    static constexpr int SPHERE_BANDS = 24;
    /// Object ids the stage's surfaces answer.
    enum ObjectId : int { SWATCH = 1, GROUND = 2, PROP = 3 };

    /// The stage of a sphere or plane swatch; an error for the environment
    /// shape (it has no surfaces) or when Embree cannot start.
    static Quelin::Expected<EmbreeStage> make(SwatchShape shape, float tiling);

    EmbreeStage(EmbreeStage&& other) noexcept;
    EmbreeStage& operator=(EmbreeStage&& other) noexcept;
    EmbreeStage(EmbreeStage const&) = delete;
    EmbreeStage& operator=(EmbreeStage const&) = delete;
    ~EmbreeStage();

    /// The prop box, for tests and the renderer's camera rays.
    Quelin::BoundingBox<Quelin::Pos> const& getPropBox() const { return mProp; }

    Quelin::Optional<float> traceOcclusion(Quelin::PrecisePos const& origin, Quelin::Dir const& direction,
                                           float maxDistance) const;
    /// Any-hit test, for callers that need no distance.
    bool isOccluded(Quelin::PrecisePos const& origin, Quelin::Dir const& direction, float maxDistance) const;
    Quelin::Optional<Quelin::SceneHit> traceNearest(Quelin::PrecisePos const& origin, Quelin::Dir const& direction,
                                                    float maxDistance) const;
    /// The triangle of object `objectId` under `point`, found along -normal.
    Quelin::Optional<Quelin::ShadedTriangle> findTriangle(Quelin::Pos const& point, Quelin::Dir const& normal,
                                                          int objectId) const;
    Quelin::Optional<float> findNearestObjectDistance(Quelin::PrecisePos const& point, float maxDistance,
                                                      std::span<int const> objectIds) const;

    /// What a ray hit, in full.
    struct Hit {
        float distance = 0;
        Quelin::Dir normal;        ///< interpolated shading normal, not yet turned to the ray
        int objectId = 0;
        unsigned triangle = 0;
        float u = 0, v = 0;        ///< Embree's barycentrics of corners 1 and 2
    };
    Quelin::Optional<Hit> intersect(Quelin::PrecisePos const& origin, Quelin::Dir const& direction,
                                    float maxDistance) const;

    /// Meshes as built, by object id (index 0 unused).
    struct Mesh {
        Quelin::Stack<Quelin::Pos> vertices;
        Quelin::Stack<Quelin::Dir> normals;            ///< per vertex
        Quelin::Stack<std::uint32_t> indices;          ///< three per triangle
    };

private:
    EmbreeStage() = default;
    void release();

    RTCScene mScene = nullptr;
    Quelin::StaticArray<Mesh, 4> mMeshes;
    Quelin::StaticArray<int, 4> mObjectOfGeometry{}; ///< Embree geometry id to object id
    Quelin::BoundingBox<Quelin::Pos> mProp;
};

} // namespace FerrimTool
