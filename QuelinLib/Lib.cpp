#include "QuelinLib/Lib.h"
#include <atomic>
#include <cstdlib>
namespace Quelin::Lib {
namespace { std::atomic<int> sCount{0}; }
void startup() { ++sCount; }
void shutdown() { --sCount; }
bool isStarted() { return sCount > 0; }
}
namespace Quelin {
bool isDevelopmentEnviro() {
    char const* v = std::getenv("QUELIN_DEVELOPMENT");
    return v && *v && String(v) != "0";
}
}
