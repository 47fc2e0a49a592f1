#include "Ferrim/SkyMap/SkyMap.h"
#include "Ferrim/SkyMap/SkyDataFiles.h"

namespace Quelin {

namespace {
bool isAvailable(StringView fileName) {
    auto const path = locateSkyDataFile(fileName);
    return path && Io::fileExists(*path);
}
} // namespace

bool SkyMap::isPrgSkyAvailable() { return isAvailable(PRG_SKY_FILE_NAME); }
bool SkyMap::isPrgSunAvailable() { return isAvailable(PRG_SUN_FILE_NAME); }
bool SkyMap::areCloudsAvailable() { return isAvailable(CLOUDS_FILE_NAME); }

} // namespace Quelin
