// `ferrim render` with image textures: paths relative to the scene file, one
// error line for a texture that does not load.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class FerrimTextureScene : public ::testing::Test {
protected:
    void SetUp() override {
        mDir = fs::temp_directory_path() / ("ferrim_texture_scene_" + std::to_string(::getpid()));
        fs::create_directories(mDir / "images");
        fs::copy_file(fs::path(FERRIM_TESTDATA_DIR) / "exr/WavyLinesLatLong.exr", mDir / "images/wavy.exr");
    }
    void TearDown() override { fs::remove_all(mDir); }

    static std::string slurp(fs::path const& p) {
        std::ostringstream s;
        s << std::ifstream(p).rdbuf();
        return s.str();
    }
    /// Runs the program from another folder, so relative paths cannot resolve against it.
    int render(std::string const& args) {
        std::string const cmd = "cd / && " + std::string(FERRIM_TOOL_PATH) + " render " + args + " >" +
                                (mDir / "out.txt").string() + " 2>" + (mDir / "err.txt").string();
        int const status = std::system(cmd.c_str());
        mOut = slurp(mDir / "out.txt");
        mErr = slurp(mDir / "err.txt");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    fs::path writeScene(std::string const& texturePath) {
        fs::path const scene = mDir / "scene.json";
        std::ofstream(scene) << R"({"swatches": [
            {"label": "panorama", "shape": "environment", "map": {"@class": "Zatho.TextureMap",
             "imageSource": {"@class": "Zatho.FileDataSource", "path": "images/wavy.exr"}}},
            {"label": "second", "shape": "plane", "map": {"@class": "Zatho.TextureMap",
             "imageSource": {"@class": "Zatho.FileDataSource", "path": ")" + texturePath + R"("}}}]})";
        return scene;
    }

    fs::path mDir;
    std::string mOut, mErr;
};

TEST_F(FerrimTextureScene, TexturePathsAreRelativeToTheSceneFile) {
    fs::path const scene = writeScene("images/wavy.exr");
    ASSERT_EQ(render(scene.string() + " -o " + (mDir / "r.png").string() + " --size 64x32 --samples 1"), 0) << mErr;
    EXPECT_TRUE(fs::exists(mDir / "r.png"));
}

TEST_F(FerrimTextureScene, TextureThatFailsToLoadIsOneErrorLine) {
    fs::path const scene = writeScene("images/absent.png");
    EXPECT_EQ(render(scene.string() + " -o " + (mDir / "r.png").string() + " --size 64x32"), 1);
    EXPECT_EQ(std::count(mErr.begin(), mErr.end(), '\n'), 1) << mErr;
    EXPECT_NE(mErr.find("swatch 2 (second)"), std::string::npos) << mErr;
    EXPECT_NE(mErr.find("absent.png"), std::string::npos) << mErr;
    EXPECT_FALSE(fs::exists(mDir / "r.png"));
}

} // namespace
