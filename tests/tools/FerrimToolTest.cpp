// The `ferrim` program as a user runs it: exit codes, one-line errors, outputs.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>

namespace {

namespace fs = std::filesystem;

struct ToolRun {
    int code;
    std::string out, err;
};

ToolRun runTool(std::string const& args) {
    fs::path const errFile = fs::temp_directory_path() / ("ferrim_tool_err_" + std::to_string(::getpid()));
    std::string const cmd = std::string(FERRIM_TOOL_PATH) + " " + args + " 2>" + errFile.string();
    ToolRun r{};
    FILE* p = popen(cmd.c_str(), "r");
    std::array<char, 4096> buf{};
    while (std::size_t n = fread(buf.data(), 1, buf.size(), p)) r.out.append(buf.data(), n);
    int const status = pclose(p);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream e(errFile);
    r.err.assign(std::istreambuf_iterator<char>(e), {});
    fs::remove(errFile);
    return r;
}

class FerrimTool : public ::testing::Test {
protected:
    void SetUp() override {
        mDir = fs::temp_directory_path() / ("ferrim_tool_" + std::to_string(::getpid()));
        fs::create_directories(mDir);
    }
    void TearDown() override { fs::remove_all(mDir); }
    fs::path write(std::string const& name, std::string const& text) {
        fs::path const p = mDir / name;
        std::ofstream(p) << text;
        return p;
    }
    fs::path mDir;
};

/// Width and height from a PNG's header.
std::pair<std::uint32_t, std::uint32_t> pngSize(fs::path const& p) {
    std::ifstream in(p, std::ios::binary);
    unsigned char h[24] = {};
    in.read(reinterpret_cast<char*>(h), 24);
    if (!in || h[1] != 'P' || h[2] != 'N' || h[3] != 'G') return {0, 0};
    auto be = [&](int o) { return std::uint32_t(h[o]) << 24 | std::uint32_t(h[o + 1]) << 16 | std::uint32_t(h[o + 2]) << 8 | h[o + 3]; };
    return {be(16), be(20)};
}

} // namespace

TEST_F(FerrimTool, ErrorsAreOneLineAndExitOne) {
    struct Case {
        std::string args, needle;
    };
    fs::path const bad = write("bad.json", "{\"swatches\": [");
    fs::path const unknown = write("unknown.json", R"({"map": {"@class": "Zatho.NoSuchMap"}})");
    fs::path const key = write("key.json", R"({"swatches": [{"map": {"@class": "Zatho.ConstantColorMap"}, "colour": 1}]})");
    for (Case const& c : {Case{"render " + (mDir / "missing.json").string(), "missing.json"},
                          Case{"render " + bad.string(), "malformed JSON"},
                          Case{"render " + unknown.string(), "Zatho.NoSuchMap"},
                          Case{"render " + key.string(), "\"colour\""},
                          Case{"render --size 12by3", "--size"},
                          Case{"types Zatho.Nothing", "Zatho.Nothing"}}) {
        ToolRun const r = runTool(c.args);
        EXPECT_EQ(r.code, 1) << c.args;
        EXPECT_NE(r.err.find(c.needle), std::string::npos) << c.args << " -> " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
}

TEST_F(FerrimTool, RendersDemoAndSceneFiles) {
    fs::path const out = mDir / "demo.png";
    ToolRun const demo = runTool("render -o " + out.string() + " --size 96x64 --samples 1");
    ASSERT_EQ(demo.code, 0) << demo.err;
    EXPECT_NE(demo.out.find(out.string()), std::string::npos);
    EXPECT_EQ(pngSize(out), std::make_pair(96u, 64u));

    fs::path const scene = write("one.json", R"({"@class": "Zatho.ConstantColorMap", "color": [1, 0, 0]})");
    fs::path const out2 = mDir / "one.png";
    ToolRun const one = runTool("render " + scene.string() + " -o " + out2.string());
    ASSERT_EQ(one.code, 0) << one.err;
    EXPECT_EQ(pngSize(out2), std::make_pair(256u, 256u));
}

TEST_F(FerrimTool, TypesAsJsonDescribeProperties) {
    ToolRun const r = runTool("types Zatho.ConstantColorMap --json");
    ASSERT_EQ(r.code, 0) << r.err;
    auto const j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["name"], "Zatho.ConstantColorMap");
    bool sawColor = false;
    for (auto const& p : j["properties"])
        if (p["name"] == "color") {
            sawColor = true;
            EXPECT_EQ(p["type"]["kind"], "color");
            EXPECT_TRUE(p["metadata"].contains("Zatho.Ui.Name"));
        }
    EXPECT_TRUE(sawColor);
}
