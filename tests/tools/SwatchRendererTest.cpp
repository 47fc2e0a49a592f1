// `ferrim render` over the Embree stage: the scene maps see the stage's
// ground and box, and screen-projected environments show their image.
#include <gtest/gtest.h>

#include "QuelinLibImage/ImageDecode.h"
#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using Quelin::Testing::runTool;
using Quelin::Testing::runToolOk;
using SwatchRender = Quelin::Testing::TempFolderTest;

/// The green channel of every pixel of an 8-bit PNG, rows top first.
struct Greens {
    int width = 0, height = 0;
    std::vector<int> values;
    int at(int x, int y) const { return values[std::size_t(y * width + x)]; }
};

Greens readGreens(fs::path const& p) {
    Quelin::TaskProgress progress;
    Quelin::Image const image =
        Quelin::makeImage(*Quelin::Io::FileInputStream::open(p).value(), Quelin::ImageFormat::Png, progress);
    Greens g;
    g.width = image.getResolution().x, g.height = image.getResolution().y;
    for (int y = 0; y < g.height; ++y)
        for (int x = 0; x < g.width; ++x) {
            if (image.getFormat() == Quelin::PixelFormat::Rgba8) g.values.push_back(image.getPixel<Quelin::PixelRgba8>(x, y).g);
            else g.values.push_back(image.getPixel<Quelin::PixelRgb8>(x, y).g);
        }
    return g;
}

TEST_F(SwatchRender, AmbientOcclusionSeesTheGroundAndWireframeTheTriangles) {
    fs::path const scene = writeText("stage.json", R"({"columns": 2, "samples": 1, "swatches": [
        {"label": "ao", "shape": "sphere", "map": {"@class": "Zatho.AmbientOcclusionMap", "radius": 1.0}},
        {"label": "wire", "shape": "plane", "map": {"@class": "Zatho.WireframeMap", "width": 1.5, "units": "pixels"}}]})");
    fs::path const out = mFolder / "stage.png";
    runToolOk("render " + scene.string() + " -o " + out.string() + " --size 128x64");
    Greens const g = readGreens(out);
    ASSERT_EQ(g.width, 128);
    // The sphere's top is open sky; its bottom sits on the ground.
    EXPECT_GT(g.at(32, 6), g.at(32, 58) + 60) << g.at(32, 6) << " " << g.at(32, 58);
    // The plane's grid: some pixels on lines, most between them.
    int bright = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 64; x < 128; ++x) bright += g.at(x, y) > 128;
    EXPECT_GT(bright, 64 * 64 / 20);
    EXPECT_LT(bright, 64 * 64 / 2);
}

TEST_F(SwatchRender, ScreenProjectedEnvironmentShowsItsImage) {
    fs::create_directories(mFolder / "images");
    fs::copy_file(fs::path(FERRIM_TESTDATA_DIR) / "exr/WavyLinesLatLong.exr", mFolder / "images/wavy.exr");
    fs::path const scene = writeText("screen.json", R"({"samples": 1, "swatches": [
        {"label": "screen", "shape": "environment", "map": {"@class": "Zatho.TextureMap",
         "imageSource": {"@class": "Zatho.FileDataSource", "path": "images/wavy.exr"},
         "enviroMode": {"mapping": "Screen"}}}]})");
    fs::path const out = mFolder / "screen.png";
    runToolOk("render " + scene.string() + " -o " + out.string() + " --size 64x64");
    Greens const g = readGreens(out);
    // Around the ball the backplate's wavy lines come and go.
    int lo = 255, hi = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            float const dx = float(x) - 31.5f, dy = float(y) - 31.5f;
            if (dx * dx + dy * dy < 31.f * 31.f) continue;
            lo = std::min(lo, g.at(x, y)), hi = std::max(hi, g.at(x, y));
        }
    EXPECT_GT(hi - lo, 40) << lo << " " << hi;
}

} // namespace
