#pragma once
// The library's version. The build reads these three lines to version the CMake
// package, the Python module and the `ferrim` program, so they are the only place
// it is written.
#include "Ferrim/Export.h"

#define FERRIM_VERSION_MAJOR 0
#define FERRIM_VERSION_MINOR 1
#define FERRIM_VERSION_PATCH 0

namespace Quelin::Ferrim {

/// The version of the library actually loaded, "MAJOR.MINOR.PATCH"; differs from
/// the macros above when a program runs against another build than it compiled with.
FERRIM_EXPORT char const* version();

} // namespace Quelin::Ferrim
