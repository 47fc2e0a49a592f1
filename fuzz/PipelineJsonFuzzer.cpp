// The colour-mapping pipeline loader (".ctm" text) on arbitrary text. A
// pipeline that loads is prepared, maps and unmaps a colour, and is written
// and read back.
#include "Ferrim/ColorMapping.h"
#include "FuzzTarget.h"

using namespace Quelin;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto loaded = deserializePipeline(FerrimFuzz::asText(data, size));
    if (!loaded) return 0;
    ColorMapping mapping(loaded->pipeline);
    (void)mapping.unmap(mapping.map(Rgb(0.18f, 0.5f, 2.f)));
    if (!deserializePipeline(serializePipeline(loaded->pipeline))) __builtin_trap();  // must load back
    return 0;
}
