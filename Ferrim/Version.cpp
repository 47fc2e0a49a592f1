#include "Ferrim/Version.h"

#define FERRIM_STRINGIFY_(x) #x
#define FERRIM_STRINGIFY(x) FERRIM_STRINGIFY_(x)

namespace Quelin::Ferrim {

char const* version() {
    return FERRIM_STRINGIFY(FERRIM_VERSION_MAJOR) "." FERRIM_STRINGIFY(FERRIM_VERSION_MINOR) "." FERRIM_STRINGIFY(
        FERRIM_VERSION_PATCH);
}

} // namespace Quelin::Ferrim
