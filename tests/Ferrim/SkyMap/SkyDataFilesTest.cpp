// Finding the data files, refusing damaged ones, and reading the clouds file.
#include <gtest/gtest.h>

#include "Ferrim/SkyMap/Clouds/CloudsData.h"
#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/PrgSunModelData.h"
#include "Ferrim/SkyMap/SkyMap.h"
#include "SkyTestSupport.h"
#include "TestSupport/ErrorOf.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
using namespace Quelin::Testing;
namespace Files = Quelin::Testing::SkyFiles;

namespace {

struct FileKind {
    char const* name;
    std::int64_t size;
    char const* notFound;
    void (*load)();
    bool (*available)();
};

FileKind const FILE_KINDS[] = {
    {"PrgSkyModelData.dat", Files::SKY_SIZE, "PRG Sky Model Data file not found in installation nor in resources directory.",
     [] { PrgSkyModelData({{0, 0, 0}, 0, 0}); }, &SkyMap::isPrgSkyAvailable},
    {"PrgSunModelData.dat", Files::SUN_SIZE, "PRG Sun Model Data file not found in installation nor in resources directory.",
     [] { PrgSunModelData({0, 0}); }, &SkyMap::isPrgSunAvailable},
    {"PrgCloudsModelData.dat", Files::CLOUDS_SIZE, "Clouds data file not found in installation nor in resources directory.",
     [] { CloudsData(); }, &SkyMap::areCloudsAvailable},
};

class SkyDataFilesTest : public TempFolderTest {};

TEST_F(SkyDataFilesTest, MissingFilesGiveEachKindsMessageAndWrongSizesAreRefusedNamingFileAndSizes) {
    SkyDataLocation const location(mFolder); // empty until each kind's file is written below
    for (FileKind const& kind : FILE_KINDS) {
        String const notFound = locateSkyDataFile(kind.name).error();
        EXPECT_EQ(notFound.rfind(String("Could not find data file ") + kind.name + " (searched ", 0), 0u) << notFound;
        EXPECT_NE(notFound.find(Io::pathToUtf8(mFolder)), String::npos) << notFound;
        EXPECT_EQ(errorOf(kind.load), kind.notFound);
        EXPECT_FALSE(kind.available()) << kind.name;
        for (std::int64_t const size : {std::int64_t(0), kind.size - 1, kind.size + 4096}) {
            Files::SparseFile(mFolder / kind.name, size);
            EXPECT_TRUE(kind.available()) << kind.name;
            String const error = errorOf(kind.load);
            EXPECT_EQ(error.rfind("Could not load object from the stream. ", 0), 0u) << error;
            for (String const& part : {String(kind.name), std::to_string(size), std::to_string(kind.size)})
                EXPECT_NE(error.find(part), String::npos) << error;
        }
    }
}

TEST_F(SkyDataFilesTest, TheDevelopmentWorkspaceComesFirstOnlyInADevelopmentEnvironment) {
    Io::Path const inWorkspace = mFolder / "resources" / "OstrelCommonInstallerResources" / "prgSkyModel";
    ASSERT_TRUE(Io::createDirs(inWorkspace) && Io::createDirs(mFolder / "installed"));
    writeText("installed/PrgSunModelData.dat", "x");
    writeText("resources/OstrelCommonInstallerResources/prgSkyModel/PrgSunModelData.dat", "x");
    SkyDataLocation const location(mFolder / "installed");
    ScopedEnv const workspace("QUELIN_WORKSPACE_DIR", mFolder.c_str());
    EXPECT_EQ(locateSkyDataFile("PrgSunModelData.dat").value().string(), (mFolder / "installed/PrgSunModelData.dat").string());
    ::setenv("QUELIN_DEVELOPMENT", "1", 1);
    EXPECT_EQ(locateSkyDataFile("PrgSunModelData.dat").value().string(), (inWorkspace / "PrgSunModelData.dat").string());
}

TEST(CloudsDataTest, SectionsLandInTheirImagesTablesAndVolume) {
    SkyDataLocation const location(sharedSkyDataFolder());
    CloudsData const clouds;
    EXPECT_EQ(clouds.getLoadStats().bytesRead, Files::CLOUDS_SIZE);
    auto const level = [](std::int64_t offset) { return float(Files::byteAt(offset)) / 255.f; };
    std::int64_t at = 0; // the sections follow each other
    for (int i = 0; i < 3; ++i) {
        auto const& image = clouds.getImage(i);
        ASSERT_EQ(image.size, (std::array{512, 128, 1024}[std::size_t(i)]));
        std::int64_t mismatches = 0;
        for (Rgb const& c : image.texels) { // stored blue, green, red
            mismatches += std::abs(c.b - level(at)) > 1e-6f || std::abs(c.g - level(at + 1)) > 1e-6f ||
                          std::abs(c.r - level(at + 2)) > 1e-6f;
            at += 3;
        }
        EXPECT_EQ(mismatches, 0) << "image " << i;
    }
    for (int t = 0; t < 2; ++t) {
        EXPECT_EQ(clouds.getTable(t).size(), (std::array{262'144u, 16'384u}[std::size_t(t)]));
        EXPECT_TRUE(holdsBytesFrom(clouds.getTable(t), at));
        at += std::int64_t(clouds.getTable(t).size());
    }
    ASSERT_EQ(clouds.getVolume().size(), 128u * 128u * 128u);
    EXPECT_NEAR(clouds.volumeAt(5, 77, 127), level(at + (127 * 128 + 77) * 128 + 5), 1e-6f);
    EXPECT_NEAR(clouds.getVolume().back(), level(Files::CLOUDS_SIZE - 1), 1e-6f);
}

} // namespace
