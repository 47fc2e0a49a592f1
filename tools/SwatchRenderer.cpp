#include "SwatchRenderer.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <map>
#include <tbb/parallel_for.h>

#include "EmbreeStage.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

/// A shading point on a swatch: what a renderer would know at a hit.
struct SwatchPoint {
    Pos uvw;
    Dir dUvw;
    Pos position;   ///< world = object space here
    Dir normal{0, 0, 1};
    Dir dpdu{1, 0, 0}, dpdv{0, 1, 0};
    Dir view{0, 0, -1};
    float footprint = 0;
    ShadedKind kind = ShadedKind::Surface;
    Pixel pixel, imageSize;
    int sample = 0;                     ///< index of the sample within its pixel
    int objectId = EmbreeStage::SWATCH;
    EmbreeStage const* stage = nullptr; ///< the scene the swatch stands in; null: nothing to find
    Swatch const* swatch = nullptr;
    int cellX = 0, cellY = 0, cellW = 1, cellH = 1; ///< the swatch's cell in the image, pixels
};

// Orthographic sphere swatches and the mirror ball fill this fraction of the cell (radius).
constexpr float BALL_RADIUS = 0.45f;

/// Where a world point shows in the swatch's cell: x right, y down, [0, 1] across.
Vector2 cellPosition(SwatchPoint const& p, PrecisePos const& q) {
    switch (p.swatch ? p.swatch->shape : SwatchShape::Sphere) {
    case SwatchShape::Environment: {
        // The environment lies at infinity, so a point on a ray from the shading
        // point shows where the ray's direction does. The camera looks along +y
        // with +z up; a direction (0.5 sx, 1, 0.5 sy) shows at (sx, sy) of the
        // ball's frame. Directions towards the camera are mirrored, as a backplate
        // seen in a reflection would be.
        double const dx = q.x - double(p.position.x), dy = q.y - double(p.position.y), dz = q.z - double(p.position.z);
        double const depth = std::max(std::fabs(dy), 1e-6);
        float const sx = float(2.0 * dx / depth), sy = float(2.0 * dz / depth);
        return {0.5f + BALL_RADIUS * sx, 0.5f - BALL_RADIUS * sy};
    }
    case SwatchShape::Plane: {
        float const t = p.swatch->tiling;
        return {float(q.x) / t, 1.f - float(q.y) / t};
    }
    default: return {0.5f + BALL_RADIUS * float(q.x), 0.5f - BALL_RADIUS * float(q.y)};
    }
}

class SwatchShadeContext final : public NullShadeContext {
public:
    explicit SwatchShadeContext(SwatchPoint const& p) : mP(p) {}
    Matrix33 getBumpBase(int) const override { return Matrix33::fromColumns(mP.dpdu, mP.dpdv, mP.normal); }
    Pos getUvw(int, std::uint32_t) const override { return mP.uvw; }
    Dir getDUvw(int) const override { return mP.dUvw; }
    Dir getDpDu(int) const override { return mP.dpdu; }
    Dir getDpDv(int) const override { return mP.dpdv; }
    PrecisePos getPosition() const override { return {mP.position.x, mP.position.y, mP.position.z}; }
    Pos getObjectPosition() const override { return mP.position; }
    Dir getNormal() const override { return mP.normal; }
    Dir getGeometricNormal() const override { return mP.normal; }
    Dir getObjectNormal() const override { return mP.normal; }
    Dir getViewDirection() const override { return mP.view; }
    float getPositionFootprint() const override { return mP.footprint; }
    AffineTm getObjectToWorld() const override { return AffineTm::identity(); }
    AffineTm getWorldToCamera() const override { return AffineTm::identity(); }
    bool isBackFace() const override { return false; }
    int getFaceIndex() const override { return 0; }
    RayKind getRayKind() const override { return RayKind::Camera; }
    ShadedKind getShadedKind() const override { return mP.kind; }
    int getRayDepth() const override { return 0; }
    bool wantsFilteredLookup() const override { return true; }
    float getTime() const override { return 0.f; }
    Pixel getPixel() const override { return mP.pixel; }
    Pixel getImageSize() const override { return mP.imageSize; }
    BoundingBox<Pos> getObjectBbox() const override {
        BoundingBox<Pos> b;
        b.include(Pos(-1, -1, -1));
        b.include(Pos(1, 1, 1));
        return b;
    }
    BoundingBox<Pos> getSceneBbox() const override { return getObjectBbox(); }
    Vector2 generateRandom2() const override {
        // Hash of the pixel and its sample: repeatable renders whose samples differ.
        std::uint32_t h = std::uint32_t(mP.pixel.x) * 0x9E3779B1u ^ std::uint32_t(mP.pixel.y) * 0x85EBCA77u ^
                          std::uint32_t(mP.sample) * 0xC2B2AE3Du;
        h ^= h >> 15;
        h *= 0x2C1B3C6Du;
        h ^= h >> 12;
        return {float(h & 0xFFFF) / 65536.f, float(h >> 16) / 65536.f};
    }
    Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude>) const override { return color; }
    int getObjectId() const override { return mP.objectId; }
    int getInstanceId() const override { return mP.objectId; }

    Vector2 unprojectPoint(Optional<PrecisePos> const& point, UnprojectPoint mode) const override {
        // Without a point: the shading point, which for an environment lies along the view ray.
        PrecisePos q = point ? *point : getPosition();
        if (!point && (mP.kind == ShadedKind::Environment || mP.kind == ShadedKind::Background))
            q = PrecisePos(q.x + mP.view.x, q.y + mP.view.y, q.z + mP.view.z);
        Vector2 const c = cellPosition(mP, q);
        if (mode == UnprojectPoint::Pixels)
            return {float(mP.cellX) + c.x * float(mP.cellW), float(mP.cellY) + c.y * float(mP.cellH)};
        // Normalized image coordinates grow upward, as texture v does.
        return {c.x, 1.f - c.y};
    }

    // The scene queries go to the swatch's Embree stage.
    Optional<float> traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        return mP.stage ? mP.stage->traceOcclusion(origin, direction, maxDistance) : std::nullopt;
    }
    Optional<SceneHit> traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        return mP.stage ? mP.stage->traceNearest(origin, direction, maxDistance) : std::nullopt;
    }
    Optional<ShadedTriangle> getTriangle() const override {
        return mP.stage ? mP.stage->findTriangle(mP.position, mP.normal, mP.objectId) : std::nullopt;
    }
    Optional<float> findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                              std::span<int const> objectIds) const override {
        return mP.stage ? mP.stage->findNearestObjectDistance(point, maxDistance, objectIds) : std::nullopt;
    }

private:
    SwatchPoint const& mP;
};

/// What one swatch evaluates: a map's evaluator or a slot's.
struct SwatchEvaluator {
    SharedPtr<IMapEvaluator> map;
    Optional<MaterialMapSlot::Evaluator> slot;

    RgbAlpha color(IShadeContext const& c) const {
        if (map) return map->evalColor(c, nullptr);
        return RgbAlpha(slot->evalColor(c, nullptr), 1.f);
    }
    Dir bump(IShadeContext const& c) const { return map ? map->evalBump(c, nullptr) : Dir(); }
};

// A key light from the upper left and a little fill, so spheres read as 3-D.
Dir const LIGHT = normalize(Dir(-0.5f, 0.6f, 0.8f));
float shade(Dir const& n) { return 0.15f + 0.85f * std::max(0.f, dot(n, LIGHT)); }

/// The top of the stage's box where the camera's ray at (X, Y) meets it in
/// front of `depth` (the swatch surface's z, -inf where the ray misses it).
/// The camera looks straight down -z, so the top face is all it sees of the box.
bool makePropPoint(Swatch const& s, float X, float Y, float depth, float worldPixel, SwatchPoint& p) {
    if (!p.stage) return false;
    BoundingBox<Pos> const& box = p.stage->getPropBox();
    if (X < box.min.x || X > box.max.x || Y < box.min.y || Y > box.max.y || !(box.max.z > depth)) return false;
    // Projected from above: the plane's own mapping, so the box continues its pattern.
    float const scale = s.shape == SwatchShape::Plane ? 1.f : s.tiling;
    p.position = Pos(X, Y, box.max.z);
    p.uvw = Pos(X * scale, Y * scale, 0);
    p.normal = Dir(0, 0, 1);
    p.dpdu = Dir(1.f / scale, 0, 0);
    p.dpdv = Dir(0, 1.f / scale, 0);
    p.dUvw = Dir(worldPixel * scale, worldPixel * scale, 0);
    p.footprint = worldPixel;
    p.objectId = EmbreeStage::PROP;
    return true;
}

/// Fills the point for cell coordinates (x, y) in [0, 1] (y down); false on background.
bool makePoint(Swatch const& s, float x, float y, float pixelSize, SwatchPoint& p) {
    p.kind = ShadedKind::Surface;
    p.view = Dir(0, 0, -1);
    p.objectId = EmbreeStage::SWATCH;
    if (s.shape == SwatchShape::Environment) {
        // A mirror ball filling 90% of the cell in front of the environment, seen
        // through a camera with a 53-degree view. Swatch space (x right, y up, z
        // toward the viewer) becomes the world's z-up frame looking along +y.
        float const r = BALL_RADIUS;
        float const sx = (x - 0.5f) / r, sy = (0.5f - y) / r;
        float const d2 = sx * sx + sy * sy;
        Dir d;
        if (d2 <= 1.f) {
            float const sz = std::sqrt(1.f - d2);
            Dir const n(sx, sy, sz), view(0, 0, -1);
            d = view - n * (2.f * dot(view, n));
            p.position = Pos(n.x, -n.z, n.y);
            // The reflection turns twice as fast as the normal, which grazing angles stretch.
            p.footprint = std::min(2.f * pixelSize / (r * std::max(sz, 0.05f)), 1.f);
        } else {
            d = normalize(Dir(0.5f * sx, 0.5f * sy, -1.f));
            p.position = Pos(0, 0, 0);
            p.footprint = 0.5f * pixelSize / r;
        }
        p.view = Dir(d.x, -d.z, d.y);
        p.kind = ShadedKind::Environment;
        return true;
    }
    if (s.shape == SwatchShape::Plane) {
        float const u = x * s.tiling, v = (1.f - y) * s.tiling;
        if (makePropPoint(s, u, v, 0.f, pixelSize * s.tiling, p)) return true;
        p.uvw = Pos(u, v, 0);
        p.position = Pos(u, v, 0);
        p.normal = Dir(0, 0, 1);
        p.dpdu = Dir(1, 0, 0);
        p.dpdv = Dir(0, 1, 0);
        p.dUvw = Dir(pixelSize * s.tiling, pixelSize * s.tiling, 0);
        p.footprint = pixelSize * s.tiling;
        return true;
    }
    // Orthographic unit sphere filling 90% of the cell.
    float const r = BALL_RADIUS;
    float const sx = (x - 0.5f) / r, sy = (0.5f - y) / r;
    float const d2 = sx * sx + sy * sy;
    float const depth = d2 > 1.f ? -std::numeric_limits<float>::infinity() : std::sqrt(1.f - d2);
    if (makePropPoint(s, sx, sy, depth, pixelSize / r, p)) return true;
    if (d2 > 1.f) return false;
    float const sz = depth;
    p.normal = Dir(sx, sy, sz);
    p.position = Pos(sx, sy, sz);
    // Longitude/latitude UVs: u runs twice as fast so texels stay square.
    float const lon = std::atan2(sx, sz), lat = std::asin(clamp(sy, -1.f, 1.f));
    float const cu = 2.f * s.tiling, cv = s.tiling;
    p.uvw = Pos((lon / TWO_PI + 0.5f) * cu, (lat / PI + 0.5f) * cv, 0);
    float const cl = std::cos(lat);
    // dP/du and dP/dv of that parametrisation.
    p.dpdu = Dir(cl * std::cos(lon), 0, -cl * std::sin(lon)) * (TWO_PI / cu);
    p.dpdv = Dir(-std::sin(lat) * std::sin(lon), cl, -std::sin(lat) * std::cos(lon)) * (PI / cv);
    float const worldPixel = pixelSize / r;
    float const lu = std::max(length(p.dpdu), 1e-4f), lv = std::max(length(p.dpdv), 1e-4f);
    // Grazing angles stretch the footprint; cap it so the poles stay sane.
    float const stretch = 1.f / std::max(sz, 0.05f);
    p.dUvw = Dir(std::min(worldPixel * stretch / lu, 1.f), std::min(worldPixel * stretch / lv, 1.f), 0);
    p.footprint = worldPixel * stretch;
    return true;
}

} // namespace

std::pair<int, int> gridOf(Scene const& scene) {
    int const n = int(scene.swatches.size());
    int cols = scene.columns > 0 ? scene.columns : int(std::ceil(std::sqrt(double(n))));
    cols = std::max(1, std::min(cols, n));
    int const rows = (n + cols - 1) / cols;
    return {cols, rows};
}

LinearImage renderScene(Scene const& scene, int width, int height, std::function<void(double)> const& progress) {
    LinearImage image;
    image.width = width;
    image.height = height;
    image.rgba.assign(std::size_t(width) * std::size_t(height) * 4, 0.f);

    // Evaluators are built once, before any pixel.
    Stack<SwatchEvaluator> evaluators;
    for (auto const& s : scene.swatches) {
        SwatchEvaluator e;
        if (s.map) e.map = s.map->getEvaluatorImpl().evaluator;
        else e.slot.emplace(*s.slot);
        evaluators.push_back(std::move(e));
    }
    // One stage per shape and tiling, shared by the swatches that look the same.
    // Should Embree fail to start, the swatches render without one: their maps
    // then find nothing in the scene, as under a renderer that cannot answer.
    std::map<std::pair<int, float>, EmbreeStage> stages;
    Stack<EmbreeStage const*> stageOf;
    for (auto const& s : scene.swatches) {
        EmbreeStage const* stage = nullptr;
        if (s.shape != SwatchShape::Environment) {
            std::pair<int, float> const key(int(s.shape), s.shape == SwatchShape::Plane ? s.tiling : 0.f);
            auto it = stages.find(key);
            if (it == stages.end()) {
                auto made = EmbreeStage::make(s.shape, key.second);
                if (made) it = stages.emplace(key, std::move(*made)).first;
            }
            if (it != stages.end()) stage = &it->second;
        }
        stageOf.push_back(stage);
    }

    // Plain names: clang 14 cannot capture structured bindings in lambdas.
    std::pair<int, int> const grid = gridOf(scene);
    int const cols = grid.first, rows = grid.second;
    int const cellW = std::max(1, width / cols), cellH = std::max(1, height / rows);
    int const side = std::max(1, int(std::lround(std::sqrt(double(scene.samples)))));
    std::atomic<int> rowsDone{0};

    tbb::parallel_for(tbb::blocked_range<int>(0, height, 4), [&](tbb::blocked_range<int> const& range) {
        SwatchPoint p;
        p.imageSize = Pixel(width, height);
        for (int y = range.begin(); y != range.end(); ++y) {
            int const row = y / cellH;
            for (int x = 0; x < width; ++x) {
                int const col = x / cellW;
                int const index = row * cols + col;
                float* out = &image.rgba[(std::size_t(y) * std::size_t(width) + std::size_t(x)) * 4];
                Rgb sum;
                if (col >= cols || row >= rows || index >= int(scene.swatches.size())) {
                    out[0] = scene.background.r, out[1] = scene.background.g, out[2] = scene.background.b, out[3] = 1.f;
                    continue;
                }
                Swatch const& s = scene.swatches[std::size_t(index)];
                SwatchEvaluator const& e = evaluators[std::size_t(index)];
                p.pixel = Pixel(x, y);
                p.swatch = &s;
                p.stage = stageOf[std::size_t(index)];
                p.cellX = col * cellW, p.cellY = row * cellH, p.cellW = cellW, p.cellH = cellH;
                float const pixelSize = 1.f / float(std::min(cellW, cellH));
                for (int sy = 0; sy < side; ++sy) {
                    for (int sx = 0; sx < side; ++sx) {
                        p.sample = sy * side + sx;
                        // Stratified samples at the strata centres.
                        float const fx = (float(x - col * cellW) + (float(sx) + 0.5f) / float(side)) / float(cellW);
                        float const fy = (float(y - row * cellH) + (float(sy) + 0.5f) / float(side)) / float(cellH);
                        if (!makePoint(s, fx, fy, pixelSize, p)) {
                            sum += scene.background;
                            continue;
                        }
                        SwatchShadeContext const context(p);
                        Rgb c;
                        if (s.bump) {
                            Dir const n = normalize(p.normal + e.bump(context));
                            c = Rgb(0.7f) * shade(n);
                        } else {
                            RgbAlpha const v = e.color(context);
                            bool const lit3d = s.shape == SwatchShape::Sphere || p.objectId == EmbreeStage::PROP;
                            float const lit = lit3d ? shade(p.normal) : 1.f;
                            float const a = clamp(v.alpha, 0.f, 1.f);
                            c = v.rgb() * lit * a + scene.background * (1.f - a);
                        }
                        sum += c;
                    }
                }
                Rgb const avg = sum / float(side * side);
                out[0] = avg.r, out[1] = avg.g, out[2] = avg.b, out[3] = 1.f;
            }
            int const done = ++rowsDone;
            if (progress && (done % 16 == 0 || done == height)) progress(double(done) / double(height));
        }
    });
    return image;
}

} // namespace FerrimTool
