// `ferrim render` with image textures: paths relative to the scene file, one
// error line for a texture that does not load.
#include <gtest/gtest.h>

#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

namespace {

namespace fs = std::filesystem;

class FerrimTextureScene : public Quelin::Testing::TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        fs::create_directories(mFolder / "images");
        fs::copy_file(fs::path(FERRIM_TESTDATA_DIR) / "exr/WavyLinesLatLong.exr", mFolder / "images/wavy.exr");
    }
    /// The scene and the arguments rendering it; the tool runs from another
    /// folder, so relative paths cannot resolve against it.
    std::string renderArguments(std::string const& texturePath) {
        fs::path const scene = writeText("scene.json", R"({"swatches": [
            {"label": "panorama", "shape": "environment", "map": {"@class": "Zatho.TextureMap",
             "imageSource": {"@class": "Zatho.FileDataSource", "path": "images/wavy.exr"}}},
            {"label": "second", "shape": "plane", "map": {"@class": "Zatho.TextureMap",
             "imageSource": {"@class": "Zatho.FileDataSource", "path": ")" + texturePath + R"("}}}]})");
        return "render " + scene.string() + " -o " + (mFolder / "r.png").string() + " --size 64x32 --samples 1";
    }
};

TEST_F(FerrimTextureScene, TexturePathsAreRelativeToTheSceneFile) {
    auto const r = Quelin::Testing::runTool(renderArguments("images/wavy.exr"));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(fs::exists(mFolder / "r.png"));
}

TEST_F(FerrimTextureScene, TextureThatFailsToLoadIsOneErrorLine) {
    Quelin::Testing::expectOneLineError(Quelin::Testing::runTool(renderArguments("images/absent.png")),
                                        {"swatch 2 (second)", "absent.png"}, "absent texture");
    EXPECT_FALSE(fs::exists(mFolder / "r.png"));
}

} // namespace
