// `ferrim sky` on generated data files: where they are found and what loading
// a configuration reads; one-line errors for bad options and missing files.
#include <gtest/gtest.h>

#include "Ferrim/SkyMap/SkyTestSupport.h"
#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

using namespace Quelin;

namespace {

class SkyCommandTest : public Testing::TempFolderTest {
  protected:
    Testing::ToolRun sky(String const& arguments) {
        Testing::SkyDataLocation const noDevelopment(mFolder); // keeps the workspace out of the child's search
        return Testing::runTool("sky " + arguments);
    }
};

TEST_F(SkyCommandTest, ReportsFoundFilesAndWhatEachConfigurationReads) {
    String const dir = Testing::sharedSkyDataFolder().string();
    auto const r = sky("--data-dir " + dir + " --sky-config 0,0,0,2,7 --sky-config 0,0,0,2,7 --sun-config 2,7");
    ASSERT_EQ(r.code, 0) << r.err;
    for (String const& line : {dir + "/PrgSkyModelData.dat", dir + "/PrgSunModelData.dat", dir + "/PrgCloudsModelData.dat",
                               String("sky 0,0,0,2,7: 8666560 of 237076928 bytes read (3.66 %) in 15 reads"),
                               String("sky 0,0,0,2,7: shared with the load above, nothing read"),
                               String("sun 2,7: 3337536 of 36759360 bytes read (9.08 %) in 3 reads")})
        EXPECT_NE(r.out.find(line), String::npos) << line << "\n" << r.out;
}

TEST_F(SkyCommandTest, MissingFilesAreListedAndLoadingThemOrBadOptionsAreOneLineErrors) {
    auto const r = sky("--data-dir " + mFolder.string());
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("not found: Could not find data file PrgSunModelData.dat"), String::npos) << r.out;

    String const data = " --data-dir " + Testing::sharedSkyDataFolder().string();
    for (auto const& [arguments, message] :
         {std::pair{"--data-dir " + mFolder.string() + " --sky-config 0,0,0,0,0", "PRG Sky Model Data file not found"},
          std::pair{data + " --sky-config 0,1 --sun-config 2,7", "--sky-config wants C0,C1,C2,A,B"},
          std::pair{data + " --sky-config 0,0,0,9,0", "index A is 9, outside 0..5"},
          std::pair{"--data-dir " + (mFolder / "none").string(), "--data-dir"}})
        Testing::expectOneLineError(sky(arguments), {message}, arguments);
}

} // namespace
