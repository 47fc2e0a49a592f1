#include "Ferrim/UvMapper.h"

#include <algorithm>
#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

// ------------------------------------------------------------------ record

SharedPtr<TypeDefinition const> const& UvMapper::Data::wrapModeType() {
    static SharedPtr<TypeDefinition const> const sType = TypeDefinition::makeEnum(
        "Zatho.WrapMode", {{0, "NoTiling"}, {1, "Repeat"}, {2, "Mirror"}, {3, "Clamp"}});
    return sType;
}

SharedPtr<TypeDefinition const> const& UvMapper::Data::mappingModeType() {
    static SharedPtr<TypeDefinition const> const sType = TypeDefinition::makeEnum(
        "Zatho.UvMappingMode", {{0, "UvChannel"}, {1, "ObjectXyz"}, {2, "WorldXyz"}, {3, "ScreenEnviro"}});
    return sType;
}

namespace {
SharedPtr<TypeDefinition const> const& planeSelectionType() {
    static SharedPtr<TypeDefinition const> const sType =
        TypeDefinition::makeEnum("Zatho.UvPlaneSelection", {{0, "XY"}, {1, "YZ"}, {2, "ZX"}});
    return sType;
}

MetadataPredicate enabledIfMode(UvMappingMode mode, String expression) {
    return {std::move(expression), [mode](GenericDataObject const& d) { return d.get<UvMappingMode>("mappingMode") == mode; }};
}
} // namespace

SharedPtr<DataObjectDefinition const> const& UvMapper::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addEnum("wrapU", wrapModeType(), int(WrapMode::Repeat), "Wrap U",
                  "Tiling of the U axis outside [0, 1]: none, repeat, mirror or clamp");
        b.addEnum("wrapV", wrapModeType(), int(WrapMode::Repeat), "Wrap V",
                  "Tiling of the V axis outside [0, 1]: none, repeat, mirror or clamp");
        b.addVector3("offset", Pos(0, 0, 0), "Offset", "Placement offset, subtracted from the coordinates first");
        b.addVector3("rotation", Pos(0, 0, 0), "Rotation", "Rotation about the X, Y and Z axes, in radians")
            .setMetadata(Metadata::QUANTITY, String("angle"));
        b.addVector3("scale", Pos(1, 1, 1), "Tiling", "Number of repetitions of the texture per unit along each axis");
        b.addBool("isOffsetScaled", false, "Scale offset", "Whether the tiling also scales the offset");
        b.addBool("useRealWorldScale", false, "Real-world scale",
                  "Real-world mapping: the texture is placed and rotated about the origin");
        b.addBool("forceRotationAroundOrigin", false, "Rotate about origin",
                  "Rotate about the origin instead of the centre of the tile");
        b.addTransform("enviroTransform", AffineTm::identity(), "Environment orientation",
                       "Orientation applied to the view direction of environment lookups")
            .setMetadata(Metadata::UI_ENABLED_IF,
                         MetadataPredicate{"rotateEnviro", [](GenericDataObject const& d) { return d.get<bool>("rotateEnviro"); }});
        b.addBool("rotateEnviro", false, "Rotate environment", "Whether environment lookups use the environment orientation");
        b.addInt("uvwMapChannel", 1, "Map channel", "The mapping channel read from the shaded geometry")
            .addValidator(makeSharedPtr<MinimumValueValidator<int>>(0))
            .setMetadata(Metadata::UI_ENABLED_IF, enabledIfMode(UvMappingMode::UvChannel, "mappingMode == UvChannel"));
        b.addEnum("uvPlaneSelection", planeSelectionType(), 0, "Plane",
                  "Which pair of axes forms the UV plane: XY, YZ or ZX");
        b.addEnum("mappingMode", mappingModeType(), int(UvMappingMode::UvChannel), "Mapping",
                  "Source of the coordinates: a UV channel, the object-space or world-space position, or a "
                  "screen/environment projection");
        return b.build("Zatho.UvMapper");
    }();
    return sDefinition;
}

FERRIM_REGISTER_ENTITY(UvMapper);

UvMapper::UvMapper() : Entity(Data::definition()) { refresh(); }

SharedPtr<Entity> UvMapper::createNewInstance() const { return makeSharedPtr<UvMapper>(); }

SharedPtr<UvMapper const> UvMapper::snapshot() const {
    auto copy = makeSharedPtr<UvMapper>();
    copy->copyStateFrom(*this);
    return copy;
}

void UvMapper::onDataChanged(StringView) { refresh(); }

void UvMapper::refresh() {
    // A setter on another thread may be writing the record, and another
    // refresh writing the cached values: the entity's mutex guards both.
    std::lock_guard const lock(getMutex());
    GenericDataObject const& d = getData();
    UvMapping m;
    m.wrapU = d.get<WrapMode>("wrapU");
    m.wrapV = d.get<WrapMode>("wrapV");
    m.offset = d.get<Pos>("offset");
    m.rotation = d.get<Pos>("rotation");
    m.scale = d.get<Pos>("scale");
    m.isOffsetScaled = d.get<bool>("isOffsetScaled");
    m.useRealWorldScale = d.get<bool>("useRealWorldScale");
    m.forceRotationAroundOrigin = d.get<bool>("forceRotationAroundOrigin");
    m.enviroTransform = d.get<AffineTm>("enviroTransform");
    m.rotateEnviro = d.get<bool>("rotateEnviro");
    m.uvwMapChannel = d.get<int>("uvwMapChannel");
    m.uvPlaneSelection = d.get<int>("uvPlaneSelection");
    mTransform = m.compute3dsMaxStdUvGenTransform(true);
    mMapping = m;
    mMode = d.get<UvMappingMode>("mappingMode");
    mShortcut = mMode != UvMappingMode::UvChannel         ? ChannelShortcut::None
                : mTransform == AffineTm::identity() ? ChannelShortcut::AsIs
                                                     : ChannelShortcut::Placed;
}

// ------------------------------------------------------------- placement

namespace {
using Rows = double[3][4];

double pivotOf(UvMapper::UvMapping const& m) {
    // Real-world mapping always pivots at the origin.
    if (m.useRealWorldScale) return 0.0;
    if (m.forceRotationAroundOrigin) return 0.0;
    return 0.5;
}

// Left-multiplication by a rotation in the plane of rows a and b:
// a' = cos a - sin b, b' = sin a + cos b.
void rotateRows(Rows& m, int a, int b, double angle) {
    double const c = std::cos(angle), s = std::sin(angle);
    for (int j = 0; j < 4; ++j) {
        double const ra = m[a][j], rb = m[b][j];
        m[a][j] = c * ra - s * rb;
        m[b][j] = s * ra + c * rb;
    }
}

// Rows of the plane-selection permutation P (its rows are unit vectors).
int planeSource(int selection, int row) {
    static constexpr int SOURCES[3][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1}};
    return SOURCES[selection][row];
}

struct M3 {
    double a[3][3];
};

double det(M3 const& x) {
    return x.a[0][0] * (x.a[1][1] * x.a[2][2] - x.a[1][2] * x.a[2][1]) -
           x.a[0][1] * (x.a[1][0] * x.a[2][2] - x.a[1][2] * x.a[2][0]) +
           x.a[0][2] * (x.a[1][0] * x.a[2][1] - x.a[1][1] * x.a[2][0]);
}

// Angles (a, b, c) of R = Rz(c) Ry(b) Rx(a), with b in [-pi/2, pi/2]. At
// gimbal lock the X angle is set to 0 and Z takes the whole turn.
Pos eulerXyz(M3 const& r) {
    double const sb = std::clamp(-r.a[2][0], -1.0, 1.0);
    double const b = std::asin(sb);
    double a, c;
    if (std::abs(sb) < 1.0 - 1e-9) {
        a = std::atan2(r.a[2][1], r.a[2][2]);
        c = std::atan2(r.a[1][0], r.a[0][0]);
    } else {
        a = 0.0;
        c = std::atan2(-r.a[0][1], r.a[1][1]);
    }
    return Pos(float(a), float(b), float(c));
}
} // namespace

AffineTm UvMapper::UvMapping::compute3dsMaxStdUvGenTransform(bool withMirror) const {
    double const c = pivotOf(*this);
    // Step 2: identity with translation -offset.
    Rows start = {{1, 0, 0, -double(offset.x)}, {0, 1, 0, -double(offset.y)}, {0, 0, 1, -double(offset.z)}};
    // Step 3: plane selection permutes the rows.
    if (uvPlaneSelection < 0 || uvPlaneSelection > 2) Detail::throwStopException("UvMapper", 576);
    Rows m;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) m[i][j] = start[planeSource(uvPlaneSelection, i)][j];
    // Step 4: move the pivot to the origin.
    for (int i = 0; i < 3; ++i) m[i][3] -= c;
    // Step 5: rotate about X, then Y, then Z.
    rotateRows(m, 1, 2, rotation.x);
    rotateRows(m, 2, 0, rotation.y);
    rotateRows(m, 0, 1, rotation.z);
    // Step 6: tiling.
    for (int i = 0; i < 3; ++i) {
        double const s = scale[i];
        for (int j = 0; j < 3; ++j) m[i][j] *= s;
        if (isOffsetScaled) m[i][3] *= s;
    }
    // Step 7: back from the pivot.
    for (int i = 0; i < 3; ++i) m[i][3] += c;
    // Step 8: mirrored axes run over two tiles (the image and its reflection).
    if (withMirror) {
        if (wrapU == WrapMode::Mirror)
            for (int j = 0; j < 4; ++j) m[0][j] *= 2.0;
        if (wrapV == WrapMode::Mirror)
            for (int j = 0; j < 4; ++j) m[1][j] *= 2.0;
    }
    AffineTm tm;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) tm.m[i][j] = float(m[i][j]);
    return tm;
}

bool UvMapper::UvMapping::updateFrom3dsMaxStdUvGenTransform(AffineTm const& tm, bool withMirror) {
    Rows m;
    double largest = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
            m[i][j] = tm.m[i][j];
            if (!std::isfinite(m[i][j])) return false;
            largest = std::max(largest, std::abs(m[i][j]));
        }
    // Undo the mirror doubling, then the pivot.
    if (withMirror) {
        if (wrapU == WrapMode::Mirror)
            for (int j = 0; j < 4; ++j) m[0][j] *= 0.5;
        if (wrapV == WrapMode::Mirror)
            for (int j = 0; j < 4; ++j) m[1][j] *= 0.5;
    }
    double const c = pivotOf(*this);
    for (int i = 0; i < 3; ++i) m[i][3] -= c;

    // The linear part is L = S R P. Every cyclic permutation P is a proper
    // rotation, so each plane selection decomposes; the one needing the
    // smallest rotation wins (the current selection on ties).
    M3 l;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) l.a[i][j] = m[i][j];
    Pos s;
    for (int i = 0; i < 3; ++i) {
        double const n = std::sqrt(l.a[i][0] * l.a[i][0] + l.a[i][1] * l.a[i][1] + l.a[i][2] * l.a[i][2]);
        if (!(n > 1e-12)) return false;
        s[i] = float(n);
    }
    // A mirrored linear part takes the reflection on the U tiling.
    if (det(l) < 0) s.x = -s.x;

    Optional<UvMapping> best;
    double bestAngle = 0.0;
    Stack<int> order;
    if (uvPlaneSelection >= 0 && uvPlaneSelection <= 2) order.push_back(uvPlaneSelection);
    for (int p = 0; p < 3; ++p)
        if (p != uvPlaneSelection) order.push_back(p);
    for (int plane : order) {
        // R = S^-1 L P^T; P^T maps column k to column planeSource(plane, k).
        M3 q{};
        for (int i = 0; i < 3; ++i)
            for (int k = 0; k < 3; ++k) q.a[i][k] = l.a[i][planeSource(plane, k)] / s[i];
        UvMapping candidate = *this;
        candidate.uvPlaneSelection = plane;
        candidate.scale = s;
        candidate.rotation = eulerXyz(q);
        // Offset: the translation is R (-P o - c) (times S when the offset is scaled).
        double t[3];
        for (int i = 0; i < 3; ++i) t[i] = isOffsetScaled ? m[i][3] / s[i] : m[i][3];
        double u[3];  // R^T t + c = -P o
        for (int k = 0; k < 3; ++k) u[k] = q.a[0][k] * t[0] + q.a[1][k] * t[1] + q.a[2][k] * t[2] + c;
        for (int k = 0; k < 3; ++k) candidate.offset[planeSource(plane, k)] = float(-u[k]);
        double const cosAngle = std::clamp((q.a[0][0] + q.a[1][1] + q.a[2][2] - 1.0) * 0.5, -1.0, 1.0);
        double const angle = std::acos(cosAngle);
        if (!best || angle < bestAngle - 1e-6) {
            best = candidate;
            bestAngle = angle;
        }
    }
    // Accept only when the parameters rebuild the transform: shears and other
    // transforms outside this family are refused.
    AffineTm const rebuilt = best->compute3dsMaxStdUvGenTransform(withMirror);
    double const tolerance = 1e-4 * (1.0 + largest);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j)
            if (!(std::abs(double(rebuilt.m[i][j]) - double(tm.m[i][j])) <= tolerance)) return false;
    *this = *best;
    return true;
}

// --------------------------------------------------------------- mapping

namespace {
bool readsChannelDirectly(ShadedKind kind) { return kind == ShadedKind::Particle || kind == ShadedKind::Hair; }
bool isEnvironmentKind(ShadedKind kind) { return kind == ShadedKind::Environment || kind == ShadedKind::Background; }

Dir absTransform(Matrix33 const& l, Dir const& d) {
    Dir r;
    for (int i = 0; i < 3; ++i)
        r[i] = std::abs(l.m[i][0]) * d.x + std::abs(l.m[i][1]) * d.y + std::abs(l.m[i][2]) * d.z;
    return r;
}
} // namespace

Pos UvMapper::computeUnplacedUvw(IShadeContext const& context, UvMappingMode mode, UvMapping const& mapping) {
    ShadedKind const kind = context.getShadedKind();
    if (readsChannelDirectly(kind)) return context.getUvw(mapping.uvwMapChannel);
    // The screen/environment projection comes first: it also answers for
    // environment rays whatever their geometry.
    if (mode == UvMappingMode::ScreenEnviro) {
        if (isEnvironmentKind(kind) && mapping.rotateEnviro)
            return sphericalMapping(normalize(mapping.enviroTransform.transformDir(context.getViewDirection())), 0.f);
        Vector2 const uv = computeScreenEnviroUv(context, 1.f);
        return Pos(uv.x, uv.y, 0.f);
    }
    switch (mode) {
    case UvMappingMode::UvChannel: return context.getUvw(mapping.uvwMapChannel);
    case UvMappingMode::ObjectXyz: return context.getObjectPosition();
    case UvMappingMode::WorldXyz: return context.getPosition().toPos();
    default: break;
    }
    Detail::throwStopException("UvMapper", 455);
}

Dir UvMapper::computeDUvw(IShadeContext const& context) const {
    Dir source;
    ShadedKind const kind = context.getShadedKind();
    if (readsChannelDirectly(kind) || mMode == UvMappingMode::UvChannel) {
        source = context.getDUvw(mMapping.uvwMapChannel);
    } else if (mMode == UvMappingMode::ScreenEnviro) {
        if (isEnvironmentKind(kind)) {
            // Spherical coordinates: the ray's angular footprint over a full turn (u) or half turn (v).
            float const f = context.getPositionFootprint();
            source = Dir(f * 0.15915494f, f * 0.31830987f, 0.f);
        } else {
            Pixel const size = context.getImageSize();
            source = Dir(size.x > 0 ? 1.f / float(size.x) : 0.f, size.y > 0 ? 1.f / float(size.y) : 0.f, 0.f);
        }
    } else {
        float const f = context.getPositionFootprint();
        source = Dir(f, f, f);
        if (mMode == UvMappingMode::ObjectXyz) source = absTransform(context.getObjectToWorld().linear().inverse(), source);
    }
    return absTransform(mTransform.linear(), source);
}

float wrapCoordinate(float x, WrapMode mode, bool& inside) {
    switch (mode) {
    case WrapMode::NoTiling: return wrapCoordinate<WrapMode::NoTiling>(x, inside);
    case WrapMode::Repeat: return wrapCoordinate<WrapMode::Repeat>(x, inside);
    case WrapMode::Mirror: return wrapCoordinate<WrapMode::Mirror>(x, inside);
    case WrapMode::Clamp: return wrapCoordinate<WrapMode::Clamp>(x, inside);
    }
    inside = false;
    return x;
}

WrappedUvw UvMapper::wrap(Pos const& uvw) const {
    WrappedUvw r;
    r.uvw.x = wrapCoordinate(uvw.x, mMapping.wrapU, r.inside);
    r.uvw.y = wrapCoordinate(uvw.y, mMapping.wrapV, r.inside);
    r.uvw.z = uvw.z;
    return r;
}

// ------------------------------------------------------------ bump frames

Matrix33 UvMapper::bumpBaseFromTangents(Dir const& normal, Dir const& dpdu, Dir const& dpdv) {
    return Matrix33::fromColumns(dpdu, dpdv, normal);
}

namespace {
Matrix33 frameAroundNormal(Dir const& normal) {
    Dir const n = normalize(normal);
    // Duff et al.'s branchless orthonormal basis.
    float const sign = std::copysign(1.f, n.z);
    float const a = -1.f / (sign + n.z);
    float const b = n.x * n.y * a;
    Dir const t(1.f + sign * n.x * n.x * a, sign * b, -sign * n.x);
    Dir const bt(b, sign + n.y * n.y * a, -n.y);
    return Matrix33::fromColumns(t, bt, n);
}

Matrix33 finishFrame(Dir const& normal, Dir const& dpdu, Dir const& dpdv, bool normalizeFrame) {
    if (!normalizeFrame) return UvMapper::bumpBaseFromTangents(normal, dpdu, dpdv);
    Dir const n = normalize(normal);
    Dir t = dpdu - n * dot(n, dpdu);
    if (!(dot(t, t) > 1e-24f)) return frameAroundNormal(normal);
    t = normalize(t);
    Dir b = cross(n, t);
    // Keep the handedness of the UV parameterisation.
    if (dot(b, dpdv) < 0.f) b = -b;
    return Matrix33::fromColumns(t, b, n);
}

// World-space gradient of a scalar that varies linearly over a triangle.
Dir triangleGradient(Dir const& e1, Dir const& e2, Dir const& n, float nn, float d1, float d2) {
    return (cross(e2, n) * d1 + cross(n, e1) * d2) / nn;
}
} // namespace

Matrix33 UvMapper::bumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws,
                            bool normalizeFrame) {
    Dir const e1 = Dir(positions[1] - positions[0]), e2 = Dir(positions[2] - positions[0]);
    float const du1 = uvws[1].x - uvws[0].x, dv1 = uvws[1].y - uvws[0].y;
    float const du2 = uvws[2].x - uvws[0].x, dv2 = uvws[2].y - uvws[0].y;
    float const d = du1 * dv2 - du2 * dv1;
    if (!(std::abs(d) > 1e-20f) || !std::isfinite(d)) return frameAroundNormal(normal);
    float const id = 1.f / d;
    Dir const dpdu = (e1 * dv2 - e2 * dv1) * id;
    Dir const dpdv = (e2 * du1 - e1 * du2) * id;
    return finishFrame(normal, dpdu, dpdv, normalizeFrame);
}

Matrix33 UvMapper::generalizedBumpBase(Dir const& normal, StaticArray<Pos, 3> const& positions,
                                       StaticArray<Pos, 3> const& uvws, bool normalizeFrame) {
    Dir const e1 = Dir(positions[1] - positions[0]), e2 = Dir(positions[2] - positions[0]);
    Dir const n = cross(e1, e2);
    float const nn = dot(n, n);
    if (!(nn > 1e-30f)) return frameAroundNormal(normal);
    Dir const gu = triangleGradient(e1, e2, n, nn, uvws[1].x - uvws[0].x, uvws[2].x - uvws[0].x);
    Dir const gv = triangleGradient(e1, e2, n, nn, uvws[1].y - uvws[0].y, uvws[2].y - uvws[0].y);
    // dP/d(u, v) is the pseudo-inverse of the gradients: G (G^T G)^-1.
    float const a = dot(gu, gu), b = dot(gu, gv), c = dot(gv, gv);
    float const d = a * c - b * b;
    if (!(d > 1e-30f * std::max(1.f, a * c)) || !std::isfinite(d)) return frameAroundNormal(normal);
    Dir const dpdu = (gu * c - gv * b) / d;
    Dir const dpdv = (gv * a - gu * b) / d;
    return finishFrame(normal, dpdu, dpdv, normalizeFrame);
}

Dir UvMapper::computeTriangleDUvw(StaticArray<Pos, 3> const& positions, StaticArray<Pos, 3> const& uvws) {
    Dir const e1 = Dir(positions[1] - positions[0]), e2 = Dir(positions[2] - positions[0]);
    Dir const n = cross(e1, e2);
    float const nn = dot(n, n);
    if (!(nn > 1e-30f)) return Dir();
    Dir r;
    for (int k = 0; k < 3; ++k) r[k] = length(triangleGradient(e1, e2, n, nn, uvws[1][k] - uvws[0][k], uvws[2][k] - uvws[0][k]));
    return r;
}

Matrix33 UvMapper::computeBumpBase(IShadeContext const& context) const {
    Matrix33 const l = mTransform.linear();
    if (readsChannelDirectly(context.getShadedKind()) || mMode == UvMappingMode::UvChannel ||
        mMode == UvMappingMode::ScreenEnviro) {
        // Chain rule through the placement: a gradient over the placed (u, v)
        // reaches the channel's (u, v) through the transpose of L's 2x2 block.
        Matrix33 const base = context.getBumpBase(mMapping.uvwMapChannel);
        Dir const dpdu = base.column(0), dpdv = base.column(1);
        return Matrix33::fromColumns(dpdu * l.m[0][0] + dpdv * l.m[0][1], dpdu * l.m[1][0] + dpdv * l.m[1][1],
                                     base.column(2));
    }
    // Position modes: the placed u and v grow along the rows of L (in object
    // space for ObjectXyz, carried to world space by the inverse transpose).
    Dir ru = l.row(0), rv = l.row(1);
    if (mMode == UvMappingMode::ObjectXyz) {
        Matrix33 const it = context.getObjectToWorld().linear().inverse().transposed();
        ru = it * ru;
        rv = it * rv;
    }
    return Matrix33::fromColumns(ru, rv, context.getNormal());
}

// -------------------------------------------------------- projections

Vector2 UvMapper::computeScreenEnviroUv(IShadeContext const& context, float scale) {
    if (isEnvironmentKind(context.getShadedKind())) {
        Pos const p = sphericalMapping(normalize(context.getViewDirection()), 0.f);
        return Vector2(p.x, p.y);
    }
    Vector2 const s = context.unprojectPoint(context.getPosition(), IShadeContext::UnprojectPoint::Normalized);
    return Vector2(0.5f + (s.x - 0.5f) * scale, 0.5f + (s.y - 0.5f) * scale);
}

Pos UvMapper::sphericalMapping(Dir const& direction, float rotation) {
    float const theta = std::acos(clamp(direction.z, -1.f, 1.f));
    float phi = std::atan2(direction.y, direction.x);
    if (phi < 0.f) phi += TWO_PI;
    phi += rotation;
    double const turns = std::floor(double(phi) * 0.15915493866300567);
    phi -= TWO_PI * float(turns);
    if (phi < 0.f) phi += TWO_PI;
    return Pos(phi * 0.15915494f, 1.f - theta * 0.31830987f, 0.f);
}

int UvMapper::dominantAxis(Dir const& d) {
    float const ax = std::abs(d.x), ay = std::abs(d.y), az = std::abs(d.z);
    if (ax > ay && ax > az) return 0;
    if (ay > az) return 1;
    return 2;
}

Vector2 UvMapper::cubeFaceUv(Dir const& d, int axis) {
    float a, b, m;
    switch (axis) {
    case 0: m = d.x, a = d.y, b = d.z; break;
    case 1: m = d.y, a = d.z, b = d.x; break;
    case 2: m = d.z, a = d.x, b = d.y; break;
    default: Detail::throwStopException("UvMapper", 208);
    }
    float const im = 1.f / std::abs(m);
    return Vector2(0.5f * (a * im + 1.f), 0.5f * (b * im + 1.f));
}

} // namespace Quelin
