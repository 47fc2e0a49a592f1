// `ferrim render [SCENE.json] [-o out.png] [--size WxH] [--samples N]`
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Commands.h"
#include "DisplayOutput.h"
#include "SwatchRenderer.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

struct RenderOptions {
    String scenePath;
    String output;
    String size;
    int samples = 0;
};

std::pair<int, int> parseSize(String const& text) {
    int w = 0, h = 0;
    char x = 0;
    std::istringstream s(text);
    if (!(s >> w >> x >> h) || (x != 'x' && x != 'X') || !s.eof() || w < 1 || h < 1 || w > 16384 || h > 16384)
        throw CommandError{"--size expects WIDTHxHEIGHT with each from 1 to 16384, not \"" + text + "\""};
    return {w, h};
}

void run(RenderOptions const& o) {
    String source = "demo scene";
    Expected<Scene> scene;
    if (o.scenePath.empty()) {
        scene = makeDemoScene();
    } else {
        std::ifstream in(o.scenePath, std::ios::binary);
        if (!in) throw CommandError{"cannot read scene file \"" + o.scenePath + "\": no such file or not readable"};
        std::ostringstream ss;
        ss << in.rdbuf();
        source = o.scenePath;
        scene = parseScene(ss.str(), source, Io::Path(o.scenePath).parent_path());
    }
    if (!scene) throw CommandError{scene.error()};
    if (auto loaded = loadSceneTextures(*scene, source); !loaded) throw CommandError{loaded.error()};
    if (o.samples > 0) scene->samples = o.samples;

    auto const [cols, rows] = gridOf(*scene);
    int width = 256 * cols, height = 256 * rows;
    if (!o.size.empty()) std::tie(width, height) = parseSize(o.size);

    String output = o.output;
    if (output.empty()) output = o.scenePath.empty() ? "ferrim-demo.png" : Io::Path(o.scenePath).stem().string() + ".png";

    ProgressBar bar("render " + std::to_string(width) + "x" + std::to_string(height));
    LinearImage image = renderScene(*scene, width, height, [&](double f) { bar.update(f); });
    bar.finish();
    if (auto r = writeDisplayImage(image, scene->pipeline, output); !r) throw CommandError{r.error()};
    std::printf("wrote %s (%dx%d, %zu swatch%s)\n", Io::Path(output).string().c_str(), width, height,
                scene->swatches.size(), scene->swatches.size() == 1 ? "" : "es");
    for (std::size_t i = 0; i < scene->swatches.size(); ++i)
        std::printf("  cell %zu (row %zu, column %zu): %s\n", i + 1, i / std::size_t(cols) + 1, i % std::size_t(cols) + 1,
                    scene->swatches[i].label.c_str());
}

} // namespace

void addRenderCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("render", "Render a scene's maps as swatches into an image (the demo scene without SCENE)");
    auto o = std::make_shared<RenderOptions>();
    cmd->add_option("scene", o->scenePath, "Scene file (JSON)");
    cmd->add_option("-o,--output", o->output, "Output image (PNG, EXR, TIFF...); default ferrim-demo.png or SCENE.png");
    cmd->add_option("--size", o->size, "Image size as WIDTHxHEIGHT; default 256 pixels per swatch");
    cmd->add_option("--samples", o->samples, "Samples per pixel (rounded to a square)")->check(CLI::Range(1, 256));
    cmd->callback([o] { run(*o); });
}

} // namespace FerrimTool
