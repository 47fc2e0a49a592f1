#pragma once
// The physical sky map. Its evaluation is not here yet; what is here tells a
// host whether the sky, sun and clouds data files are installed.
#include "Ferrim/Export.h"

namespace Quelin {

class FERRIM_EXPORT SkyMap {
  public:
    /// Whether "PrgSkyModelData.dat" is found where the data files are looked for.
    static bool isPrgSkyAvailable();
    /// Whether "PrgSunModelData.dat" is found.
    static bool isPrgSunAvailable();
    /// Whether "PrgCloudsModelData.dat" is found.
    static bool areCloudsAvailable();
};

} // namespace Quelin
