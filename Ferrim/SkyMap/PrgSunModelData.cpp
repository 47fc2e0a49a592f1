#include "Ferrim/SkyMap/PrgSunModelData.h"
#include "Ferrim/SkyMap/ModelDataCache.h"

namespace Quelin {

namespace {
constexpr StringView NOT_FOUND = "PRG Sun Model Data file not found in installation nor in resources directory.";
} // namespace

static_assert(PrgSunModelData::B_ENTRIES * Detail::GridTables::GRID_ROWS * Detail::GridTables::GRID_COLUMNS *
                      PrgSunModelData::GRID_ENTRY_BYTES +
                  PrgSunModelData::A_ENTRIES * PrgSunModelData::B_ENTRIES * PrgSunModelData::ROW_BYTES ==
              PrgSunModelData::FILE_SIZE);

String PrgSunModelData::Configuration::toString() const {
    return std::to_string(indexA) + "," + std::to_string(indexB);
}

PrgSunModelData::PrgSunModelData(Configuration const& configuration)
    : PrgSunModelData(configuration, *Detail::openSkyDataFile(PRG_SUN_FILE_NAME, NOT_FOUND, FILE_SIZE)) {}

PrgSunModelData::PrgSunModelData(Configuration const& configuration, Io::InputStream& stream)
    : mConfiguration(configuration) {
    static constexpr StringView WHAT = "PRG sun configuration";
    Detail::checkGridIndex(WHAT, "index A", mConfiguration.indexA, A_ENTRIES);
    Detail::checkGridIndex(WHAT, "index B", mConfiguration.indexB, B_ENTRIES);
    Detail::checkSkyDataFileSize(stream, FILE_SIZE);
    Detail::SkyDataReader reader(stream);
    mTables.read(reader, GridBracket::of(mConfiguration.indexA, A_ENTRIES),
                 GridBracket::of(mConfiguration.indexB, B_ENTRIES));
    mStats = reader.finish();
}

ModelDataCache<PrgSunModelData>& PrgSunModelData::getCache() {
    // Sun slices are small (about 3.4 MB), so more of them stay alive.
    static ModelDataCache<PrgSunModelData> sCache(8);
    return sCache;
}

} // namespace Quelin
