#pragma once
// How the texture map turns a direction into image coordinates for
// environment lookups. The world is Z-up; u grows to the right and v upwards
// over [0, 1]^2 of the image.
//
// - Spherical: the latitude-longitude panorama (UvMapper::sphericalMapping):
//   +z is the top row, -z the bottom row, u = 0 looks along +x and u grows
//   counter-clockwise seen from above (+y at u = 0.25, -x at 0.5).
// - Screen: the image is a backplate over the rendered frame: uv is where the
//   ray meets the image plane (the shade context's unprojection of a point on
//   the ray), whatever its direction.
// - Dome: a ground-projected panorama. The panorama was taken at
//   dome_origin + (0, 0, dome_cameraHeight); the world around it is a
//   hemisphere of radius dome_radius centred on dome_origin standing on the
//   ground plane z = dome_origin.z. A ray is followed from its origin (the
//   shading position) to that floor or dome, and the panorama is looked up in
//   the direction from the panorama's camera to the hit, so the ground stays
//   put under a moving viewer. Seen from the panorama's camera it equals
//   Spherical.
// - Cross: six cube faces in a vertical cross, 3 faces wide and 4 high, seen
//   from inside looking along +y with +z up:
//         [  +z  ]
//   [ -x ][  +y  ][ +x ]
//         [  -z  ]
//         [  -y  ]
//   Each face continues its neighbours across shared edges; the -y face is
//   therefore upside down (its top edge meets the -z face). The faces are
//   sampled at least half a texel inside their cell so filtering does not
//   pick up the empty cells.
// - MirrorBall: a photograph of a mirrored sphere taken along +y: the centre
//   of the ball shows -y (behind the photographer), its rim +y, right +x and
//   up +z. The direction +y itself (the whole rim) is taken at the bottom.
//
// Footprints: the lookup's angular footprint (radians, the shade context's
// footprint of an environment ray) times the mapping's scale gives the
// footprint in u and v, widened by the map's "blur". Screen uses one pixel of
// the rendered image instead.
#include "Ferrim/Export.h"
#include "QuelinLib/Types.h"

namespace Quelin {

/// The environment mappings of the texture map; the values are those of its enumeration.
enum class EnvironmentMapping : int { Spherical = 0, Screen = 1, Dome = 2, Cross = 3, MirrorBall = 4 };

namespace EnvironmentMappings {

/// The ground-projection dome of the Dome mapping.
struct DomeShape {
    Pos origin{0, 0, 0};
    float radius = 100.f;
    float cameraHeight = 1.7f;
};

/// Latitude-longitude coordinates of a unit direction.
FERRIM_EXPORT Vector2 spherical(Dir const& direction);
/// Coordinates in the vertical cross of a direction (any length but zero);
/// `faceSize` is the width of one face in texels of the finest level.
FERRIM_EXPORT Vector2 cross(Dir const& direction, int faceSize);
/// Coordinates in the mirror-ball image of a unit direction.
FERRIM_EXPORT Vector2 mirrorBall(Dir const& direction);
/// The direction in which the Dome mapping looks up the panorama for a ray
/// from `rayOrigin` along the unit `direction`. A ray that misses the dome
/// (an origin outside it) keeps its direction.
FERRIM_EXPORT Dir domeDirection(DomeShape const& dome, Pos const& rayOrigin, Dir const& direction);
/// Footprint in (u, v) per radian of angular footprint.
FERRIM_EXPORT Vector2 footprintPerRadian(EnvironmentMapping mapping);

} // namespace EnvironmentMappings
} // namespace Quelin
