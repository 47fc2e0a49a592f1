// The `ferrim` program as a user runs it: exit codes, one-line errors, outputs,
// texture paths relative to the scene file, the sky data report.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Ferrim/SkyMap/SkyTestSupport.h"
#include "Ferrim/Version.h"
#include "QuelinLibImage/ImageDecode.h"
#include "TestSupport/ScopedEnv.h"
#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using Quelin::Testing::expectOneLineError;
using Quelin::Testing::runTool;
using Quelin::Testing::runToolOk;
using Quelin::Testing::sharedSkyDataFolder;
using Quelin::Testing::SkyDataLocation;
using Quelin::Testing::ToolRun;

using FerrimTool = Quelin::Testing::TempFolderTest;

/// A Radiance HDR file of flat scanlines; the header may claim more pixels
/// than follow.
std::string hdrText(int width, int height, int pixelsWritten) {
    std::string text = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y " + std::to_string(height) + " +X " + std::to_string(width) + "\n";
    for (int i = 0; i < pixelsWritten; ++i) text += std::string("\x80\x80\x80\x81", 4);  // grey 1.0
    return text;
}

std::string const PIPELINE_START = R"({"mimeType": "application/vnd.zatho.ostrel.color-mapping", "version": 1, "operators": [)";

std::string lutPipeline(std::string const& lutPath) {
    return PIPELINE_START + R"({"@class": "Zatho.LutOperator", "path": ")" + lutPath + R"("}]})";
}

/// Two textured swatches, the second reading `texturePath`, the first a copy
/// of a test image in images/ beside the scene.
std::string texturedScene(fs::path const& folder, std::string const& texturePath) {
    fs::create_directories(folder / "images");
    fs::copy_file(fs::path(FERRIM_TESTDATA_DIR) / "exr/WavyLinesLatLong.exr", folder / "images/wavy.exr", fs::copy_options::skip_existing);
    return R"({"swatches": [
        {"label": "panorama", "shape": "environment", "map": {"@class": "Zatho.TextureMap",
         "imageSource": {"@class": "Zatho.FileDataSource", "path": "images/wavy.exr"}}},
        {"label": "second", "shape": "plane", "map": {"@class": "Zatho.TextureMap",
         "imageSource": {"@class": "Zatho.FileDataSource", "path": ")" + texturePath + R"("}}}]})";
}

/// Standard error of `ferrim <arguments>` run on a terminal (standard output
/// discarded), through script(1).
std::string stderrOnTerminal(std::string const& arguments) {
    fs::path const transcript = fs::temp_directory_path() / ("ferrim_tty_" + std::to_string(::getpid()));
    std::string const command = "cd / && script -qec '" + std::string(FERRIM_TOOL_PATH) + " " + arguments +
                                " >/dev/null' /dev/null >" + transcript.string() + " 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::ostringstream text;
    text << std::ifstream(transcript).rdbuf();
    fs::remove(transcript);
    return text.str();
}

/// The pixels of the EXR image written at `p` (its header carries the time of writing).
std::string exrPixels(fs::path const& p) {
    Quelin::TaskProgress progress;
    Quelin::Image const image =
        Quelin::makeImage(*Quelin::Io::FileInputStream::open(p).value(), Quelin::ImageFormat::Exr, progress);
    return std::string(reinterpret_cast<char const*>(image.getData()), std::size_t(image.getByteSize()));
}

/// The size of the PNG image written at `p`.
Quelin::Pixel pngSize(fs::path const& p) {
    Quelin::TaskProgress progress;
    return Quelin::makeImage(*Quelin::Io::FileInputStream::open(p).value(), Quelin::ImageFormat::Png, progress).getResolution();
}

} // namespace

TEST_F(FerrimTool, RendersDemoAndSceneFiles) {
    fs::path const out = mFolder / "demo.png";
    ToolRun const demo = runToolOk("render -o " + out.string() + " --size 96x64 --samples 1");
    EXPECT_NE(demo.out.find(out.string()), std::string::npos);
    EXPECT_EQ(pngSize(out), Quelin::Pixel(96, 64));

    fs::path const scene = writeText("one.json", R"({"@class": "Zatho.ConstantColorMap", "color": [1, 0, 0]})");
    fs::path const out2 = mFolder / "one.png";
    runToolOk("render " + scene.string() + " -o " + out2.string());
    EXPECT_EQ(pngSize(out2), Quelin::Pixel(256, 256));
    // The tool runs in another folder: the texture is found beside the scene.
    fs::path const textured = writeText("textured.json", texturedScene(mFolder, "images/wavy.exr"));
    runToolOk("render " + textured.string() + " -o " + out2.string() + " --size 64x32 --samples 1");
    EXPECT_EQ(pngSize(out2), Quelin::Pixel(64, 32));
}

TEST_F(FerrimTool, TiledTexturesRenderUnderAMemoryCapAndTileErrorsAreReported) {
    fs::path const tiled = mFolder / "images" / "wavy_tx.exr";
    fs::path const scene = writeText("tiled.json", texturedScene(mFolder, "images/wavy_tx.exr"));
    runToolOk("maketx " + (mFolder / "images" / "wavy.exr").string() + " -o " + tiled.string() + " --tile 16");
    fs::path const roomy = mFolder / "roomy.png", capped = mFolder / "capped.png";
    runToolOk("render " + scene.string() + " -o " + roomy.string() + " --size 64x32 --samples 1");
    runToolOk("render " + scene.string() + " -o " + capped.string() + " --size 64x32 --samples 1 --texture-memory 0.01");
    auto const contents = [](fs::path const& p) {
        std::ostringstream t;
        t << std::ifstream(p, std::ios::binary).rdbuf();
        return t.str();
    };
    EXPECT_EQ(contents(roomy), contents(capped)) << "a cap below one tile level changed the picture";

    for (char const* bad : {"nan", "-1", "0", "inf", "2e6", "lots"})
        expectOneLineError(runTool("render " + scene.string() + " --texture-memory " + bad), {"--texture-memory"}, bad);
    // Cut short: refused at load. Bytes flipped before the coarsest level:
    // those tiles fail when a lookup reads them, and the render says so.
    std::string const bytes = contents(tiled);
    std::string flipped = bytes;
    for (std::size_t i = bytes.size() / 10; i < bytes.size() * 995 / 1000; i += 13) flipped[i] = char(flipped[i] ^ 0x5A);
    for (auto const& [damaged, needle] : {std::pair{bytes.substr(0, bytes.size() * 95 / 100), "texture failed to load"},
                                          std::pair{flipped, "Could not read a tile of"}}) {
        std::ofstream(tiled, std::ios::binary | std::ios::trunc) << damaged;
        expectOneLineError(runTool("render " + scene.string() + " -o " + (mFolder / "cut.png").string() + " --size 512x256 --samples 1"),
                           {"wavy_tx.exr", needle}, needle);
    }
}

TEST_F(FerrimTool, SkyReportsTheDataFilesAndWhatEachConfigurationReads) {
    SkyDataLocation const noDevelopment(mFolder); // keeps the workspace out of the child's search
    std::string const dir = sharedSkyDataFolder().string();
    ToolRun const r = runToolOk("sky --data-dir " + dir + " --sky-config 0,0,0,2,7 --sky-config 0,0,0,2,7 --sun-config 2,7");
    for (std::string const& line : {dir + "/PrgSkyModelData.dat", dir + "/PrgSunModelData.dat", dir + "/PrgCloudsModelData.dat",
                                    std::string("sky 0,0,0,2,7: 8666560 of 237076928 bytes read (3.66 %) in 15 reads"),
                                    std::string("sky 0,0,0,2,7: shared with the load above, nothing read"),
                                    std::string("sun 2,7: 3337536 of 36759360 bytes read (9.08 %) in 3 reads")})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    ToolRun const missing = runToolOk("sky --data-dir " + mFolder.string());
    EXPECT_NE(missing.out.find("not found: Could not find data file PrgSunModelData.dat (searched " + mFolder.string()),
              std::string::npos)
        << missing.out;
}

TEST_F(FerrimTool, BadAndHostileInputsGiveOneLineNamingTheFile) {
    fs::path const bad = writeText("bad.json", "{\"swatches\": [");
    fs::path const unknown = writeText("unknown.json", R"({"map": {"@class": "Zatho.NoSuchMap"}})");
    fs::path const key = writeText("key.json", R"({"swatches": [{"map": {"@class": "Zatho.ConstantColorMap"}, "colour": 1}]})");
    fs::path const image = writeText("in.hdr", hdrText(2, 2, 4));
    fs::path const huge = writeText("huge.hdr", hdrText(30000, 30000, 4));
    fs::path const lies = writeText("lies.hdr", hdrText(8000, 8000, 4));
    fs::path const missingLut = writeText("missing-lut.ctm", lutPipeline((mFolder / "missing.cube").string()));
    // A device never ends: it must be refused, not read.
    fs::create_symlink("/dev/zero", mFolder / "zero.cube");
    fs::path const deviceLut = writeText("device-lut.ctm", lutPipeline((mFolder / "zero.cube").string()));
    std::string predecessors = "null";
    for (int i = 0; i < 8000; ++i) predecessors = R"({"@class": "Zatho.IdentityOperator", "predecessor": )" + predecessors + "}";
    fs::path const deepChain = writeText("chain.ctm", PIPELINE_START + predecessors + "]}");
    auto nestedMaps = [](int depth) {
        std::string map = R"({"@class": "Zatho.ConstantColorMap"})";
        for (int i = 0; i < depth; ++i) map = R"({"@class": "Zatho.CheckerMap", "color1": {"map": )" + map + "}}";
        return R"({"map": )" + map + "}";
    };
    std::string swatches;
    for (int i = 0; i < 2000; ++i) swatches += std::string(i ? "," : "") + R"({"map": {"@class": "Zatho.ConstantColorMap"}})";
    std::string const constant = R"({"map": {"@class": "Zatho.ConstantColorMap"}})";

    SkyDataLocation const noDevelopment(mFolder);
    std::string const skyData = "sky --data-dir " + sharedSkyDataFolder().string();
    struct Case { std::string args; std::vector<std::string> needles; };
    auto render = [&](char const* name, std::string const& text) { return "render " + writeText(name, text).string(); };
    for (Case const& c : {
             Case{"render " + (mFolder / "missing.json").string(), {"missing.json"}},
             Case{"render " + bad.string(), {"malformed JSON"}},
             Case{"render " + unknown.string(), {"Zatho.NoSuchMap"}},
             Case{"render " + key.string(), {"\"colour\""}},
             Case{"render --size 12by3", {"--size"}},
             Case{"types Zatho.Nothing", {"Zatho.Nothing"}},
             // The argument parser's own errors.
             Case{"--no-such-option", {"--no-such-option"}},
             Case{"render --samples 0", {"--samples"}},
             Case{"tonemap " + image.string(), {"--output"}},
             Case{"types a b", {"b"}},
             Case{"frobnicate", {"frobnicate"}},
             Case{"tonemap " + image.string() + " -o " + (mFolder / "o.png").string() + " --lut " + (mFolder / "none.cube").string(),
                  {"--lut", "none.cube"}},
             Case{"sky --data-dir " + mFolder.string() + " --sky-config 0,0,0,0,0", {"PRG Sky Model Data file not found"}},
             Case{skyData + " --sky-config 0,1 --sun-config 2,7", {"--sky-config wants C0,C1,C2,A,B"}},
             Case{skyData + " --sky-config 0,0,0,9,0", {"index A is 9, outside 0..5"}},
             Case{"sky --data-dir " + (mFolder / "none").string(), {"--data-dir"}},
             Case{"tonemap " + huge.string() + " -o " + (mFolder / "o.png").string(), {"huge.hdr", "268435456 pixels"}},
             Case{"tonemap " + lies.string() + " -o " + (mFolder / "o.png").string(), {"lies.hdr", "more than the file's"}},
             Case{"tonemap " + image.string() + " -o " + (mFolder / "o.png").string() + " --pipeline " + missingLut.string(),
                  {"missing.cube", "cannot open"}},
             Case{"unmap 0.5 0.5 0.5 --pipeline " + deviceLut.string(), {"zero.cube: not a regular file"}},
             Case{"unmap 0.5 0.5 0.5 --pipeline " + deepChain.string(), {"chain.ctm", "nested deeper than 256"}},
             Case{render("lut.json", R"({"pipeline": )" + lutPipeline((mFolder / "gone.cube").string()) + R"(, "swatches": [)" + constant + "]}"),
                  {"gone.cube", "cannot open"}},
             Case{render("many.json", R"({"swatches": [)" + swatches + "]}"), {"many.json", "2000 swatches", "--size"}},
             Case{render("columns.json", R"({"columns": 4294967297, "swatches": [)" + constant + "]}"), {"columns.json", "\"columns\""}},
             Case{render("nested-maps.json", nestedMaps(110)), {"nested-maps.json", "entities nested deeper than 100"}},
             Case{render("texture.json", texturedScene(mFolder, "images/absent.png")) + " -o " + (mFolder / "o.png").string(),
                  {"swatch 2 (second)", "absent.png"}},
         }) {
        expectOneLineError(runTool(c.args), c.needles, c.args.substr(0, 120));
    }
    EXPECT_FALSE(fs::exists(mFolder / "o.png")) << "an image was written without its LUT or texture";
}

TEST_F(FerrimTool, VersionGoesToStandardOutput) {
    ToolRun const r = runToolOk("--version");
    EXPECT_EQ(r.out, "ferrim " + std::string(Quelin::Ferrim::version()) + "\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(FerrimTool, TypesTakeShortNamesDescribePropertiesAndListGroupTypes) {
    auto const constant = nlohmann::json::parse(runToolOk("types ConstantColorMap --json").out);
    EXPECT_EQ(constant["name"], "Zatho.ConstantColorMap");
    auto const& properties = constant["properties"];
    auto const color = std::find_if(properties.begin(), properties.end(), [](auto const& p) { return p["name"] == "color"; });
    ASSERT_NE(color, properties.end());
    EXPECT_EQ((*color)["type"]["kind"], "color");
    EXPECT_TRUE((*color)["metadata"].contains("Zatho.Ui.Name"));
    ToolRun const all = runToolOk("types");
    EXPECT_NE(all.out.find("\nZatho.TextureMapEnviroMode (group type of Zatho.TextureMap.enviroMode)\n"), std::string::npos);
    for (char const* name : {"TextureMapEnviroMode", "TextureMap.enviroMode", "enviroMode"}) {
        auto const j = nlohmann::json::parse(runToolOk(std::string("types ") + name + " --json").out);
        EXPECT_EQ(j["name"], "Zatho.TextureMapEnviroMode") << name;
        EXPECT_EQ(j["groupOf"], "Zatho.TextureMap.enviroMode") << name;
    }
}

TEST_F(FerrimTool, ProgressOnlyOnATerminalAndNeverWhenQuiet) {
    fs::path const image = writeText("in.hdr", hdrText(2, 2, 4));
    std::string const args = "tonemap " + image.string() + " -o " + (mFolder / "o.png").string();
    EXPECT_EQ(runToolOk(args).err, "");
    if (std::system("script -qec true /dev/null >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "script(1) cannot open a pseudo-terminal here";
    EXPECT_NE(stderrOnTerminal(args).find("] 100%"), std::string::npos);
    for (char const* quiet : {" --quiet", " -q"}) EXPECT_EQ(stderrOnTerminal(args + quiet), "") << quiet;
}

TEST_F(FerrimTool, TonemapLutIsTheCtmHoldingIt) {
    fs::path const image = writeText("in.hdr", hdrText(2, 2, 4));
    std::string const tonemap = "tonemap " + image.string() + " -o ";
    for (char const* lut : {"iridas_3d.cube", "discreet-3d-lut.3dl"}) {
        std::string const path = (fs::path(FERRIM_TESTDATA_DIR) / "lut" / lut).string();
        runToolOk(tonemap + (mFolder / "ctm.exr").string() + " --pipeline " + writeText("lut.ctm", lutPipeline(path)).string());
        runToolOk(tonemap + (mFolder / "lut.exr").string() + " --lut " + path);
        EXPECT_EQ(exrPixels(mFolder / "ctm.exr"), exrPixels(mFolder / "lut.exr")) << lut;
        runToolOk(tonemap + (mFolder / "after.exr").string() + " --default --lut " + path);
        EXPECT_NE(exrPixels(mFolder / "after.exr"), exrPixels(mFolder / "lut.exr")) << lut;
    }
}

TEST_F(FerrimTool, TexturesReportAndStatsFileOnlyWithOutOfCoreSettings) {
    std::string const image = (fs::path(FERRIM_TESTDATA_DIR) / "exr/GrayRampsHorizontal.exr").string();
    Quelin::Testing::ScopedEnv const tmp("TMPDIR", mFolder.c_str());  // the default offload folder is under it
    ToolRun const plain = runToolOk("textures " + image);
    ToolRun const withFolder = runToolOk("textures " + image + " --folder " + (mFolder / "offload").string());

    EXPECT_NE(plain.out.find("GrayRampsHorizontal.exr"), std::string::npos) << plain.out;
    EXPECT_EQ(plain.out.find("textureStats.csv"), std::string::npos) << plain.out;
    EXPECT_FALSE(fs::exists(mFolder / "OstrelRenderer" / "ImageTextureCache" / "textureStats.csv"));
    EXPECT_NE(withFolder.out.find("textureStats.csv"), std::string::npos) << withFolder.out;
    EXPECT_TRUE(fs::exists(mFolder / "offload" / "textureStats.csv"));
}
