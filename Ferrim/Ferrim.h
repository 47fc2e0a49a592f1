#pragma once
// Start-up, shut-down and data-type registration of the shading library.
#include "Ferrim/Export.h"
#include "QuelinLib/DataObjects.h"

namespace Quelin::Ferrim {

/// MIME types of exchanged data.
FERRIM_EXPORT extern String const MIME_ENTITY_DATA;       ///< "application/vnd.zatho.entity-data"
FERRIM_EXPORT extern String const MIME_TYPE_DEFINITIONS;  ///< "application/vnd.zatho.type-definitions"
FERRIM_EXPORT extern String const MIME_TYPE_METADATA;     ///< "application/vnd.zatho.type-metadata"
FERRIM_EXPORT extern String const MIME_COLOR_MAPPING;     ///< "application/vnd.zatho.ostrel.color-mapping"

/// Reference-counted: only the first call starts the base library, registers
/// the types and runs the hooks.
FERRIM_EXPORT void startup();
/// The last call runs the hooks' shut-down in reverse, unregisters the types
/// and stops the base library.
FERRIM_EXPORT void shutdown();
FERRIM_EXPORT bool isStarted();
FERRIM_EXPORT bool isInTransition();
FERRIM_EXPORT void registerDataTypes();
FERRIM_EXPORT void unregisterDataTypes();

/// A start-up and a shut-down callable under a name. A callable is a plain
/// function or a shared callable object; an empty one does nothing.
struct Hook {
    void (*startupFunction)() = nullptr;
    SharedPtr<Function<void()>> startupObject;
    void (*shutdownFunction)() = nullptr;
    SharedPtr<Function<void()>> shutdownObject;
    StringView name;
};

/// Appends a hook; called by static initialisers before any start-up.
FERRIM_EXPORT void addHook(Hook hook);
FERRIM_EXPORT Stack<Hook> const& getHooks();

/// Adds a record type (and, with a factory, an entity class) to the module's
/// registration list; called by static initialisers.
FERRIM_EXPORT void addModuleType(Function<SharedPtr<DataObjectDefinition const>()> definition,
                                 EntityDatabase::Factory factory = {});

/// Static registrar of a module type.
struct FERRIM_EXPORT TypeRegistrar {
    TypeRegistrar(Function<SharedPtr<DataObjectDefinition const>()> definition, EntityDatabase::Factory factory = {}) {
        addModuleType(std::move(definition), std::move(factory));
    }
};
/// Static registrar of a hook.
struct FERRIM_EXPORT HookRegistrar {
    explicit HookRegistrar(Hook hook) { addHook(std::move(hook)); }
};

} // namespace Quelin::Ferrim

/// Registers an entity class whose record is `Class::Data::definition()`.
#define FERRIM_REGISTER_ENTITY(Class)                                                                                  \
    static ::Quelin::Ferrim::TypeRegistrar const sFerrimRegistrar_##Class(                                            \
        [] { return Class::Data::definition(); }, [] { return ::Quelin::SharedPtr<::Quelin::Entity>(::Quelin::makeSharedPtr<Class>()); })
