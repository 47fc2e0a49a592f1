#include "Ferrim/Ferrim.h"

#include "QuelinLib/Lib.h"

#include <algorithm>

namespace Quelin::Ferrim {

String const MIME_ENTITY_DATA = "application/vnd.zatho.entity-data";
String const MIME_TYPE_DEFINITIONS = "application/vnd.zatho.type-definitions";
String const MIME_TYPE_METADATA = "application/vnd.zatho.type-metadata";
String const MIME_COLOR_MAPPING = "application/vnd.zatho.ostrel.color-mapping";

namespace {
// The start count's address is the module identity in the type database.
std::int32_t sStartCount = 0;
bool sInTransition = false;

Stack<Hook>& hooks() {
    static Stack<Hook> sHooks;
    return sHooks;
}

struct ModuleTypeEntry {
    Function<SharedPtr<DataObjectDefinition const>()> definition;
    EntityDatabase::Factory factory;
};
Stack<ModuleTypeEntry>& moduleTypes() {
    static Stack<ModuleTypeEntry> sTypes;
    return sTypes;
}

void const* moduleIdentity() { return &sStartCount; }

void run(void (*function)(), SharedPtr<Function<void()>> const& object) {
    if (function)
        function();
    else if (object && *object)
        (*object)();
}
} // namespace

// The module's own hooks run in this order whatever order their static
// initialisers ran in: the texture cache's loader starts once every type,
// obsolete operators included, is known.
namespace {
constexpr StringView HOOK_ORDER[] = {"Register obsolete operators", "Image Texture cache"};

std::size_t hookRank(StringView name) {
    return std::size_t(std::find(std::begin(HOOK_ORDER), std::end(HOOK_ORDER), name) - std::begin(HOOK_ORDER));
}
} // namespace

void addHook(Hook hook) {
    auto& list = hooks();
    // Growth to the larger of count + 1 and 1.5 x capacity.
    if (list.size() == list.capacity()) list.reserve(std::max(list.size() + 1, list.capacity() * 3 / 2));
    // Ordered hooks go before the first hook of a later rank; others keep registration order at the end.
    std::size_t const rank = hookRank(hook.name);
    auto const at = std::find_if(list.begin(), list.end(), [rank](Hook const& h) { return hookRank(h.name) > rank; });
    list.insert(rank == std::size(HOOK_ORDER) ? list.end() : at, std::move(hook));
}

Stack<Hook> const& getHooks() { return hooks(); }

void addModuleType(Function<SharedPtr<DataObjectDefinition const>()> definition, EntityDatabase::Factory factory) {
    moduleTypes().push_back({std::move(definition), std::move(factory)});
}

void registerDataTypes() {
    Stack<DataObjects::ModuleType> types;
    for (auto const& t : moduleTypes()) types.push_back({t.definition(), t.factory});
    DataObjects::TypeDatabase::registerModuleTypes(moduleIdentity(), types);
}

void unregisterDataTypes() { DataObjects::TypeDatabase::unregisterModuleTypes(moduleIdentity()); }

void startup() {
    sInTransition = true;
    if (sStartCount != 0) {
        ++sStartCount;
        sInTransition = false;
        return;
    }
    Lib::startup();
    registerDataTypes();
    for (auto const& h : hooks()) run(h.startupFunction, h.startupObject);
    sStartCount = 1;
    sInTransition = false;
}

void shutdown() {
    sInTransition = true;
    --sStartCount;
    if (sStartCount > 0) {
        sInTransition = false;
        return;
    }
    auto const& list = hooks();
    for (auto it = list.rbegin(); it != list.rend(); ++it) run(it->shutdownFunction, it->shutdownObject);
    unregisterDataTypes();
    Lib::shutdown();
    sInTransition = false;
}

bool isStarted() { return sStartCount > 0; }
bool isInTransition() { return sInTransition; }

} // namespace Quelin::Ferrim
