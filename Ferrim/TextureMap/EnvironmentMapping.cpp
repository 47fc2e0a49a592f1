#include "Ferrim/TextureMap/EnvironmentMapping.h"

#include <cmath>

#include "Ferrim/UvMapper.h"

namespace Quelin::EnvironmentMappings {

Vector2 spherical(Dir const& direction) {
    Pos const p = UvMapper::sphericalMapping(direction, 0.f);
    return Vector2(p.x, p.y);
}

Vector2 cross(Dir const& d, int faceSize) {
    // Face coordinates (fu, fv) in [0, 1] with fv up, and the face's cell
    // (column, row from the top) in the 3 x 4 cross.
    float fu, fv;
    int col, row;
    switch (UvMapper::dominantAxis(d)) {
    case 0: {
        float const m = 1.f / std::fabs(d.x);
        fv = 0.5f * (d.z * m + 1.f);
        if (d.x > 0.f) fu = 0.5f * (1.f - d.y * m), col = 2;
        else fu = 0.5f * (d.y * m + 1.f), col = 0;
        row = 1;
        break;
    }
    case 1: {
        float const m = 1.f / std::fabs(d.y);
        fu = 0.5f * (d.x * m + 1.f);
        if (d.y > 0.f) fv = 0.5f * (d.z * m + 1.f), row = 1;
        else fv = 0.5f * (1.f - d.z * m), row = 3;
        col = 1;
        break;
    }
    default: {
        float const m = 1.f / std::fabs(d.z);
        fu = 0.5f * (d.x * m + 1.f);
        if (d.z > 0.f) fv = 0.5f * (1.f - d.y * m), row = 0;
        else fv = 0.5f * (d.y * m + 1.f), row = 2;
        col = 1;
        break;
    }
    }
    // Half a texel inside the face; NaN (a zero direction) lands on the inset edge.
    float const inset = 0.5f / float(faceSize > 0 ? faceSize : 1);
    fu = std::fmin(std::fmax(fu, inset), 1.f - inset);
    fv = std::fmin(std::fmax(fv, inset), 1.f - inset);
    return Vector2((float(col) + fu) * (1.f / 3.f), (float(3 - row) + fv) * 0.25f);
}

Vector2 mirrorBall(Dir const& direction) {
    // The ball's normal halves the angle between the photographer's view (+y)
    // reversed and the reflected direction: n ~ direction - (0, 1, 0).
    Dir const n = direction - Dir(0.f, 1.f, 0.f);
    float const len = length(n);
    if (!(len > 1e-6f)) return Vector2(0.5f, 0.f);
    float const a = n.x / len, b = n.z / len;
    return Vector2(0.5f * (a + 1.f), 0.5f * (b + 1.f));
}

Dir domeDirection(DomeShape const& dome, Pos const& rayOrigin, Dir const& direction) {
    float const r = dome.radius;
    if (!(r > 0.f)) return direction;
    Dir const p(rayOrigin - dome.origin);
    Dir hit;
    bool onFloor = false;
    if (direction.z < 0.f) {
        float const t = -p.z / direction.z;
        Dir const q = p + direction * t;
        if (t >= 0.f && q.x * q.x + q.y * q.y <= r * r) hit = q, onFloor = true;
    }
    if (!onFloor) {
        // Far intersection with the sphere; the origin must be inside it.
        float const b = dot(p, direction), c = dot(p, p) - r * r;
        if (c > 0.f) return direction;
        float const t = -b + std::sqrt(std::fmax(b * b - c, 0.f));
        hit = p + direction * t;
    }
    Dir const fromCamera = hit - Dir(0.f, 0.f, dome.cameraHeight);
    float const len = length(fromCamera);
    return len > 0.f ? fromCamera / len : direction;
}

Vector2 footprintPerRadian(EnvironmentMapping mapping) {
    switch (mapping) {
    // A full turn spans u, a half turn v.
    case EnvironmentMapping::Spherical:
    case EnvironmentMapping::Dome: return Vector2(0.15915494f, 0.31830987f);
    // At a face's centre one radian is one unit of a face two units wide;
    // faces are a third of the width and a quarter of the height.
    case EnvironmentMapping::Cross: return Vector2(1.f / 6.f, 1.f / 8.f);
    // At the ball's centre the reflected angle turns twice as fast as the
    // normal, over a ball two units wide.
    case EnvironmentMapping::MirrorBall: return Vector2(0.25f, 0.25f);
    case EnvironmentMapping::Screen: break;
    }
    return Vector2(0.f, 0.f);
}

} // namespace Quelin::EnvironmentMappings
