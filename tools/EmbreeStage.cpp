#include "EmbreeStage.h"

#include <algorithm>
#include <cmath>
#include <embree3/rtcore.h>
#include <limits>

using namespace Quelin;

namespace FerrimTool {

namespace {

/// One Embree device for the process: it owns Embree's threads and memory.
Expected<RTCDevice> sharedDevice() {
    static Expected<RTCDevice> const device = []() -> Expected<RTCDevice> {
        RTCDevice d = rtcNewDevice(nullptr);
        if (!d) return makeError("Embree could not start (error " + std::to_string(int(rtcGetDeviceError(nullptr))) + ")");
        return d;
    }();
    return device;
}

using Mesh = EmbreeStage::Mesh;

void addQuad(Mesh& m, Pos const& a, Pos const& b, Pos const& c, Pos const& d, Dir const& normal) {
    auto const first = std::uint32_t(m.vertices.size());
    for (Pos const& p : {a, b, c, d}) {
        m.vertices.push_back(p);
        m.normals.push_back(normal);
    }
    for (std::uint32_t i : {0u, 1u, 2u, 0u, 2u, 3u}) m.indices.push_back(first + i);
}

/// An axis-aligned box with outward faces, corners counter-clockwise seen from outside.
Mesh makeBox(BoundingBox<Pos> const& b) {
    Mesh m;
    Pos const lo = b.min, hi = b.max;
    addQuad(m, {hi.x, lo.y, lo.z}, {hi.x, hi.y, lo.z}, {hi.x, hi.y, hi.z}, {hi.x, lo.y, hi.z}, {1, 0, 0});
    addQuad(m, {lo.x, lo.y, lo.z}, {lo.x, lo.y, hi.z}, {lo.x, hi.y, hi.z}, {lo.x, hi.y, lo.z}, {-1, 0, 0});
    addQuad(m, {lo.x, hi.y, lo.z}, {lo.x, hi.y, hi.z}, {hi.x, hi.y, hi.z}, {hi.x, hi.y, lo.z}, {0, 1, 0});
    addQuad(m, {lo.x, lo.y, lo.z}, {hi.x, lo.y, lo.z}, {hi.x, lo.y, hi.z}, {lo.x, lo.y, hi.z}, {0, -1, 0});
    addQuad(m, {lo.x, lo.y, hi.z}, {hi.x, lo.y, hi.z}, {hi.x, hi.y, hi.z}, {lo.x, hi.y, hi.z}, {0, 0, 1});
    addQuad(m, {lo.x, lo.y, lo.z}, {lo.x, hi.y, lo.z}, {hi.x, hi.y, lo.z}, {hi.x, lo.y, lo.z}, {0, 0, -1});
    return m;
}

/// The unit sphere in latitude bands, with its exact normals at the vertices.
Mesh makeSphere(int bands, int segments) {
    Mesh m;
    for (int i = 0; i <= bands; ++i) {
        float const lat = PI * (float(i) / float(bands) - 0.5f);
        for (int j = 0; j <= segments; ++j) {
            float const lon = TWO_PI * float(j) / float(segments);
            Dir const n(std::cos(lat) * std::sin(lon), std::sin(lat), std::cos(lat) * std::cos(lon));
            m.vertices.push_back(toPos(n));
            m.normals.push_back(n);
        }
    }
    auto const at = [&](int i, int j) { return std::uint32_t(i * (segments + 1) + j); };
    for (int i = 0; i < bands; ++i) {
        for (int j = 0; j < segments; ++j) {
            // The pole rows would hold triangles of zero area.
            if (i != 0) m.indices.insert(m.indices.end(), {at(i, j), at(i, j + 1), at(i + 1, j + 1)});
            if (i != bands - 1) m.indices.insert(m.indices.end(), {at(i, j), at(i + 1, j + 1), at(i + 1, j)});
        }
    }
    return m;
}

/// The square [0, size]^2 of z = 0 in cells x cells quads.
Mesh makeGrid(float size, int cells) {
    Mesh m;
    float const step = size / float(cells);
    for (int i = 0; i < cells; ++i) {
        for (int j = 0; j < cells; ++j) {
            float const x0 = step * float(j), x1 = j + 1 == cells ? size : step * float(j + 1);
            float const y0 = step * float(i), y1 = i + 1 == cells ? size : step * float(i + 1);
            addQuad(m, {x0, y0, 0}, {x1, y0, 0}, {x1, y1, 0}, {x0, y1, 0}, {0, 0, 1});
        }
    }
    return m;
}

/// The point of triangle abc closest to p (Ericson, "Real-Time Collision
/// Detection", 5.1.5).
Dir closestOnTriangle(Dir const& p, Dir const& a, Dir const& b, Dir const& c) {
    Dir const ab = b - a, ac = c - a, ap = p - a;
    float const d1 = dot(ab, ap), d2 = dot(ac, ap);
    if (d1 <= 0.f && d2 <= 0.f) return a;
    Dir const bp = p - b;
    float const d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0.f && d4 <= d3) return b;
    float const vc = d1 * d4 - d3 * d2;
    if (vc <= 0.f && d1 >= 0.f && d3 <= 0.f) return a + ab * (d1 / (d1 - d3));
    Dir const cp = p - c;
    float const d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0.f && d5 <= d6) return c;
    float const vb = d5 * d2 - d1 * d6;
    if (vb <= 0.f && d2 >= 0.f && d6 <= 0.f) return a + ac * (d2 / (d2 - d6));
    float const va = d3 * d6 - d5 * d4;
    if (va <= 0.f && (d4 - d3) >= 0.f && (d5 - d6) >= 0.f) return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
    float const denom = 1.f / (va + vb + vc);
    return a + ab * (vb * denom) + ac * (vc * denom);
}

struct PointQueryState {
    StaticArray<Mesh, 4> const* meshes;
    StaticArray<int, 4> const* objectOfGeometry;
    std::span<int const> objectIds;
    Optional<float> best;
};

bool closestPointCallback(RTCPointQueryFunctionArguments* args) {
    auto& state = *static_cast<PointQueryState*>(args->userPtr);
    int const object = (*state.objectOfGeometry)[args->geomID];
    if (!state.objectIds.empty() &&
        std::find(state.objectIds.begin(), state.objectIds.end(), object) == state.objectIds.end())
        return false;
    Mesh const& m = (*state.meshes)[std::size_t(object)];
    std::uint32_t const* i = &m.indices[std::size_t(args->primID) * 3];
    Dir const p(args->query->x, args->query->y, args->query->z);
    Dir const q = closestOnTriangle(p, toDir(m.vertices[i[0]]), toDir(m.vertices[i[1]]), toDir(m.vertices[i[2]]));
    float const d = length(q - p);
    if (d >= args->query->radius) return false;
    args->query->radius = d;
    state.best = d;
    return true;
}

/// A direction Embree can trace and a usable length, or nothing.
bool prepareRay(Dir const& direction, float maxDistance, Dir& unit) {
    if (!(maxDistance > 0.f)) return false; // NaN, zero and negative lengths find nothing
    float const l = length(direction);
    if (!(l > 0.f) || !std::isfinite(l)) return false;
    unit = direction / l;
    return true;
}

void fillRay(RTCRay& ray, PrecisePos const& origin, Dir const& unit, float maxDistance) {
    ray.org_x = float(origin.x), ray.org_y = float(origin.y), ray.org_z = float(origin.z);
    ray.dir_x = unit.x, ray.dir_y = unit.y, ray.dir_z = unit.z;
    ray.tnear = 0.f;
    ray.tfar = maxDistance;
    ray.time = 0.f;
    ray.mask = 0xFFFFFFFFu;
    ray.id = 0;
    ray.flags = 0;
}

} // namespace

Expected<EmbreeStage> EmbreeStage::make(SwatchShape shape, float tiling) {
    if (shape == SwatchShape::Environment) return makeError("an environment swatch has no surfaces to trace");
    auto device = sharedDevice();
    if (!device) return makeError(device.error());
    EmbreeStage stage;
    if (shape == SwatchShape::Sphere) {
        stage.mMeshes[SWATCH] = makeSphere(SPHERE_BANDS, 2 * SPHERE_BANDS);
        Mesh ground;
        addQuad(ground, {-8, -1, -8}, {-8, -1, 8}, {8, -1, 8}, {8, -1, -8}, {0, 1, 0});
        stage.mMeshes[GROUND] = std::move(ground);
        stage.mProp.include(Pos(0.8f, -1.f, 0.4f));
        stage.mProp.include(Pos(1.4f, -0.5f, 1.f));
    } else {
        // The plane's size follows its tiling; keep it finite and the grid bounded.
        float const size = std::isfinite(tiling) && tiling > 0.f ? std::min(tiling, 1e6f) : 1.f;
        // Four quads a tile, at most 16 a side: a scene of many plane swatches of
        // different tilings keeps its stages small.
        int const cells = std::clamp(int(std::lround(4.f * std::min(size, 4.f))), 1, 16);
        stage.mMeshes[SWATCH] = makeGrid(size, cells);
        stage.mProp.include(Pos(0.72f * size, 0.72f * size, 0.f));
        stage.mProp.include(Pos(1.1f * size, 1.1f * size, 0.2f * size));
    }
    stage.mMeshes[PROP] = makeBox(stage.mProp);

    stage.mScene = rtcNewScene(*device);
    for (int object : {int(SWATCH), int(GROUND), int(PROP)}) {
        Mesh const& m = stage.mMeshes[std::size_t(object)];
        if (m.indices.empty()) continue;
        RTCGeometry g = rtcNewGeometry(*device, RTC_GEOMETRY_TYPE_TRIANGLE);
        auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                              3 * sizeof(float), m.vertices.size()));
        auto* i = static_cast<std::uint32_t*>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                                                      3 * sizeof(std::uint32_t), m.indices.size() / 3));
        if (!v || !i) {
            rtcReleaseGeometry(g);
            stage.release();
            return makeError("Embree could not allocate the stage's geometry");
        }
        for (std::size_t k = 0; k < m.vertices.size(); ++k) {
            v[3 * k] = m.vertices[k].x, v[3 * k + 1] = m.vertices[k].y, v[3 * k + 2] = m.vertices[k].z;
        }
        std::copy(m.indices.begin(), m.indices.end(), i);
        rtcCommitGeometry(g);
        unsigned const id = rtcAttachGeometry(stage.mScene, g);
        rtcReleaseGeometry(g);
        stage.mObjectOfGeometry[id] = object;
    }
    rtcCommitScene(stage.mScene);
    if (rtcGetDeviceError(*device) != RTC_ERROR_NONE) {
        stage.release();
        return makeError("Embree could not build the stage");
    }
    return stage;
}

EmbreeStage::EmbreeStage(EmbreeStage&& other) noexcept
    : mScene(other.mScene), mMeshes(std::move(other.mMeshes)), mObjectOfGeometry(other.mObjectOfGeometry),
      mProp(other.mProp) {
    other.mScene = nullptr;
}

EmbreeStage& EmbreeStage::operator=(EmbreeStage&& other) noexcept {
    if (this != &other) {
        release();
        mScene = other.mScene;
        other.mScene = nullptr;
        mMeshes = std::move(other.mMeshes);
        mObjectOfGeometry = other.mObjectOfGeometry;
        mProp = other.mProp;
    }
    return *this;
}

EmbreeStage::~EmbreeStage() { release(); }

void EmbreeStage::release() {
    if (mScene) rtcReleaseScene(mScene);
    mScene = nullptr;
}

Optional<EmbreeStage::Hit> EmbreeStage::intersect(PrecisePos const& origin, Dir const& direction,
                                                  float maxDistance) const {
    Dir unit;
    if (!mScene || !prepareRay(direction, maxDistance, unit)) return std::nullopt;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit rh;
    fillRay(rh.ray, origin, unit, maxDistance);
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(mScene, &context, &rh);
    if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) return std::nullopt;
    Hit h;
    h.distance = rh.ray.tfar;
    h.objectId = mObjectOfGeometry[rh.hit.geomID];
    h.triangle = rh.hit.primID;
    h.u = rh.hit.u, h.v = rh.hit.v;
    Mesh const& m = mMeshes[std::size_t(h.objectId)];
    std::uint32_t const* i = &m.indices[std::size_t(h.triangle) * 3];
    h.normal = normalize(m.normals[i[0]] * (1.f - h.u - h.v) + m.normals[i[1]] * h.u + m.normals[i[2]] * h.v);
    // Which side the ray came from is the geometric normal's call.
    Dir const ng(rh.hit.Ng_x, rh.hit.Ng_y, rh.hit.Ng_z);
    if (dot(ng, unit) > 0.f) h.normal = -h.normal;
    return h;
}

Optional<float> EmbreeStage::traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const {
    Optional<Hit> const h = intersect(origin, direction, maxDistance);
    if (!h) return std::nullopt;
    return h->distance;
}

bool EmbreeStage::isOccluded(PrecisePos const& origin, Dir const& direction, float maxDistance) const {
    Dir unit;
    if (!mScene || !prepareRay(direction, maxDistance, unit)) return false;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRay ray;
    fillRay(ray, origin, unit, maxDistance);
    rtcOccluded1(mScene, &context, &ray);
    return ray.tfar < 0.f;
}

Optional<SceneHit> EmbreeStage::traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const {
    Optional<Hit> const h = intersect(origin, direction, maxDistance);
    if (!h) return std::nullopt;
    return SceneHit{h->distance, h->normal, h->objectId};
}

Optional<ShadedTriangle> EmbreeStage::findTriangle(Pos const& point, Dir const& normal, int objectId) const {
    Dir const n = normalize(normal);
    if (dot(n, n) < 0.5f) return std::nullopt;
    // From just above the point back down through it: the tessellation lies within
    // a thousandth of the swatch's exact surface.
    float const lift = 1e-2f * std::max({1.f, std::fabs(point.x), std::fabs(point.y), std::fabs(point.z)});
    Pos const start = point + toPos(n * lift);
    Optional<Hit> const h = intersect(PrecisePos(start.x, start.y, start.z), -n, 3.f * lift);
    if (!h || h->objectId != objectId) return std::nullopt;
    Mesh const& m = mMeshes[std::size_t(objectId)];
    std::uint32_t const* i = &m.indices[std::size_t(h->triangle) * 3];
    ShadedTriangle t;
    t.corners = {m.vertices[i[0]], m.vertices[i[1]], m.vertices[i[2]]};
    t.barycentrics = Pos(1.f - h->u - h->v, h->u, h->v);
    return t;
}

Optional<float> EmbreeStage::findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                                       std::span<int const> objectIds) const {
    if (!mScene || !(maxDistance >= 0.f)) return std::nullopt;
    RTCPointQuery query;
    query.x = float(point.x), query.y = float(point.y), query.z = float(point.z);
    query.time = 0.f;
    query.radius = std::min(maxDistance, 1e9f); // Embree needs a finite search radius
    RTCPointQueryContext context;
    rtcInitPointQueryContext(&context);
    PointQueryState state{&mMeshes, &mObjectOfGeometry, objectIds, std::nullopt};
    rtcPointQuery(mScene, &query, &context, closestPointCallback, &state);
    return state.best;
}

} // namespace FerrimTool
