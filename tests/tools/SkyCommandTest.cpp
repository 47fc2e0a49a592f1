// `ferrim sky` on generated data files: where they are found and what loading
// a configuration reads; one-line errors for bad options and missing files.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/wait.h>

#include "Ferrim/SkyMap/SkyTestSupport.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;

namespace {

class SkyCommandTest : public Testing::TempFolderTest {
  protected:
    /// Exit code, standard output, standard error.
    std::tuple<int, String, String> sky(String const& arguments) {
        Testing::SkyDataLocation const noDevelopment(mFolder); // keeps the workspace out of the child's search
        String const out = (mFolder / "out").string(), err = (mFolder / "err").string();
        int const status = std::system((String(FERRIM_TOOL_PATH) + " sky " + arguments + " >" + out + " 2>" + err).c_str());
        auto slurp = [](String const& p) {
            std::ostringstream text;
            text << std::ifstream(p).rdbuf();
            return text.str();
        };
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
    }
};

TEST_F(SkyCommandTest, ReportsFoundFilesAndWhatEachConfigurationReads) {
    String const dir = Testing::sharedSkyDataFolder().string();
    auto const [code, out, err] = sky("--data-dir " + dir + " --sky-config 0,0,0,2,7 --sky-config 0,0,0,2,7 --sun-config 2,7");
    ASSERT_EQ(code, 0) << err;
    for (String const& line : {dir + "/PrgSkyModelData.dat", dir + "/PrgSunModelData.dat", dir + "/PrgCloudsModelData.dat",
                               String("sky 0,0,0,2,7: 8666560 of 237076928 bytes read (3.66 %) in 15 reads"),
                               String("sky 0,0,0,2,7: shared with the load above, nothing read"),
                               String("sun 2,7: 3337536 of 36759360 bytes read (9.08 %) in 3 reads")})
        EXPECT_NE(out.find(line), String::npos) << line << "\n" << out;
}

TEST_F(SkyCommandTest, MissingFilesAreListedAndLoadingThemOrBadOptionsAreOneLineErrors) {
    auto const [code, out, err] = sky("--data-dir " + mFolder.string());
    EXPECT_EQ(code, 0) << err;
    EXPECT_NE(out.find("not found: Could not find data file PrgSunModelData.dat"), String::npos) << out;

    String const data = " --data-dir " + Testing::sharedSkyDataFolder().string();
    for (auto const& [arguments, message] :
         {std::pair{"--data-dir " + mFolder.string() + " --sky-config 0,0,0,0,0", "PRG Sky Model Data file not found"},
          std::pair{data + " --sky-config 0,1 --sun-config 2,7", "--sky-config wants C0,C1,C2,A,B"},
          std::pair{data + " --sky-config 0,0,0,9,0", "index A is 9, outside 0..5"},
          std::pair{"--data-dir " + (mFolder / "none").string(), "--data-dir"}}) {
        auto const [failedCode, failedOut, error] = sky(arguments);
        EXPECT_EQ(failedCode, 1) << arguments;
        EXPECT_NE(error.find(message), String::npos) << arguments << " -> " << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }
}

} // namespace
