// The entity loader (maps, mappers, operators by "@class") on arbitrary text.
// A loaded entity is written back and read again, and a map's evaluator is
// built and asked for one colour.
#include "Ferrim/IMap.h"
#include "Ferrim/IShadeContext.h"
#include "FuzzTarget.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto json = parseJson(FerrimFuzz::asText(data, size));
    if (!json) return 0;
    auto entity = entityFromJson(*json);
    if (!entity) return 0;
    auto again = entityFromJson(entityToJson(**entity));
    if (!again) __builtin_trap();  // what was written must load back
    if (auto map = std::dynamic_pointer_cast<IMap>(*entity)) {
        auto result = map->getEvaluator();
        if (result.evaluator) (void)result.evaluator->evalColor(NullShadeContext(), nullptr);
    }
    return 0;
}
