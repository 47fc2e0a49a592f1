#pragma once
// Start and stop of the base library, and process-wide switches.
#include "QuelinLib/Base.h"

namespace Quelin::Lib {

/// Reference-counted start of the base library: the first call reads the
/// debug-log categories from the environment (QUELIN_DEBUG_LOG) and warms up
/// the default task scheduler. Each startup needs one shutdown.
void startup();
/// The last shutdown runs the registered shutdown functions (newest first).
/// A shutdown without a startup does nothing.
void shutdown();
bool isStarted();
/// How many startups are not yet matched by a shutdown.
int getStartCount();

/// Runs `function` at the last shutdown, newest registration first. Made for
/// process-wide services (caches, pools) that must end before the program does.
void addShutdownFunction(Function<void()> function);

} // namespace Quelin::Lib

namespace Quelin {
/// Whether the process runs in a development environment: set by the
/// environment variable QUELIN_DEVELOPMENT to anything but "0" or empty.
bool isDevelopmentEnviro();
} // namespace Quelin
