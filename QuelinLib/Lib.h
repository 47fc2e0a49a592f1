#pragma once
// Start and stop of the base library, and process-wide switches.
#include "QuelinLib/Base.h"

namespace Quelin::Lib {

/// Reference-counted start of the base library (logger, scheduler).
void startup();
void shutdown();
bool isStarted();

} // namespace Quelin::Lib

namespace Quelin {
/// Whether the process runs in a development environment: set by the
/// environment variable QUELIN_DEVELOPMENT to anything but "0" or empty.
bool isDevelopmentEnviro();
} // namespace Quelin
