// `ferrim render [SCENE.json] [-o out.png] [--size WxH] [--samples N] [--texture-memory MiB]`
#include <cstdio>
#include <sstream>

#include "Commands.h"
#include "DisplayOutput.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "QuelinLib/MessageText.h"
#include "SwatchRenderer.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

struct RenderOptions {
    String scenePath;
    String output;
    String size;
    int samples = 0;
    Optional<double> textureMemoryMib;  ///< the tile cache's cap
};

/// The first tile that could not be read in any tiled texture: such texels
/// render as 0, which the user must hear of.
Optional<String> tileReadError() {
    for (auto const& t : ImageTextureCache::getReadyTextures())
        if (t->getTiledFile() && !t->getError().empty()) return t->getError();
    return std::nullopt;
}

/// The largest render, whether its size is given or follows from the scene:
/// the linear image alone takes 16 bytes per pixel.
constexpr int MAX_RENDER_SIDE = 16384;
constexpr std::int64_t MAX_RENDER_PIXELS = std::int64_t(8192) * 8192;
constexpr int CELL_PIXELS = 256;  ///< automatic size: pixels per swatch
/// Largest scene file read; scenes are a few kilobytes.
constexpr std::int64_t MAX_SCENE_FILE_BYTES = 64 << 20;

String const SIZE_LIMIT_TEXT = "each side from 1 to " + std::to_string(MAX_RENDER_SIDE) + " and at most " +
                               std::to_string(MAX_RENDER_PIXELS) + " pixels";

bool isRenderSizeAllowed(std::int64_t w, std::int64_t h) {
    return w >= 1 && h >= 1 && w <= MAX_RENDER_SIDE && h <= MAX_RENDER_SIDE && w * h <= MAX_RENDER_PIXELS;
}

std::pair<int, int> parseSize(String const& text) {
    int w = 0, h = 0;
    char x = 0;
    std::istringstream s(text);
    if (!(s >> w >> x >> h) || (x != 'x' && x != 'X') || !s.eof() || !isRenderSizeAllowed(w, h))
        throw CommandError{"--size expects WIDTHxHEIGHT with " + SIZE_LIMIT_TEXT + ", not \"" + printableText(text) + "\""};
    return {w, h};
}

/// The image size: --size, or CELL_PIXELS per swatch of the scene's grid.
std::pair<int, int> renderSize(RenderOptions const& o, Scene const& scene, String const& source) {
    if (!o.size.empty()) return parseSize(o.size);
    auto const [cols, rows] = gridOf(scene);
    std::int64_t const w = std::int64_t(CELL_PIXELS) * cols, h = std::int64_t(CELL_PIXELS) * rows;
    if (!isRenderSizeAllowed(w, h))
        throw CommandError{source + ": " + std::to_string(scene.swatches.size()) + " swatches in " + std::to_string(cols) +
                           " columns make a " + std::to_string(w) + "x" + std::to_string(h) + " image at " +
                           std::to_string(CELL_PIXELS) + " pixels per swatch; the limit is " + SIZE_LIMIT_TEXT +
                           " (give a smaller --size)"};
    return {int(w), int(h)};
}

void run(RenderOptions const& o) {
    if (o.textureMemoryMib)
        if (auto set = ImageTextureCache::setTileMemoryCap(*o.textureMemoryMib); !set)
            throw CommandError{"--texture-memory: " + set.error()};
    String source = "demo scene";
    String text;
    Expected<Scene> scene;
    if (o.scenePath.empty()) {
        scene = makeDemoScene();
    } else {
        auto read = Io::readTextFile(Io::pathFromUtf8(o.scenePath), MAX_SCENE_FILE_BYTES);
        if (!read) throw CommandError{read.error()};
        text = std::move(*read);
        source = o.scenePath;
        scene = guardMemory(source, [&] { return parseScene(text, source, Io::Path(o.scenePath).parent_path()); });
    }
    if (!scene) throw CommandError{scene.error()};
    if (auto loaded = loadSceneTextures(*scene, source); !loaded) throw CommandError{loaded.error()};
    if (o.samples > 0) scene->samples = o.samples;
    auto const size = renderSize(o, *scene, source);
    int const width = size.first, height = size.second;
    int const cols = gridOf(*scene).first;

    // The pipeline is loaded and its files read before the render starts, so
    // that a missing LUT is reported at once rather than after the render.
    EntityHolder<IColorMappingOperator> const pipeline = loadScenePipeline(scene->pipeline, source);

    String output = o.output;
    if (output.empty()) output = o.scenePath.empty() ? "ferrim-demo.png" : Io::Path(o.scenePath).stem().string() + ".png";

    ProgressBar bar("render " + std::to_string(width) + "x" + std::to_string(height));
    LinearImage image = guardMemory(output, [&] { return renderScene(*scene, width, height, [&](double f) { bar.update(f); }); });
    bar.finish();
    if (auto r = guardMemory(output, [&] { return writeDisplayImage(image, pipeline, output); }); !r) throw CommandError{r.error()};
    if (auto const error = tileReadError()) throw CommandError{*error + " (those texels are 0 in " + output + ")"};
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
    cmd->add_option("--size", o->size, "Image size as WIDTHxHEIGHT (each side up to 16384, 67108864 pixels in all); default 256 pixels per swatch");
    cmd->add_option("--samples", o->samples, "Samples per pixel (rounded to a square)")->check(CLI::Range(1, 256));
    cmd->add_option_function<double>(
        "--texture-memory", [o](double mib) { o->textureMemoryMib = mib; },
        "Memory cap of the tiles of tiled, mip-mapped textures (ferrim maketx), in MiB; default 1024");
    cmd->callback([o] { run(*o); });
}

} // namespace FerrimTool
