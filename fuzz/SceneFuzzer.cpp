// The scene reader of `ferrim render` on arbitrary text. A scene that loads
// is rendered into a few pixels, which evaluates every map it holds.
#include "../tools/Scene.h"
#include "../tools/SwatchRenderer.h"
#include "FuzzTarget.h"

using namespace Quelin;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto scene = FerrimTool::parseScene(FerrimFuzz::asText(data, size), "fuzz.json");
    if (!scene) return 0;
    scene->samples = 1;
    (void)FerrimTool::renderScene(*scene, 4, 4, [](double) {});
    return 0;
}
