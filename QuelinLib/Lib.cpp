#include "QuelinLib/Lib.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/TaskScheduler.h"
#include <chrono>
#include <cstdlib>

namespace Quelin::Lib {

namespace {
struct LibState {
    Mutex mutex; // orders startups and shutdowns against each other
    int count = 0;
    Stack<Function<void()>> shutdownFunctions;
};

LibState& state() {
    static LibState s;
    return s;
}
} // namespace

void startup() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (s.count++ > 0)
        return;
    DebugLogger::configureFromEnvironment();
    (void)TaskScheduler::getDefault().getThreadCount();
}

void shutdown() {
    auto& s = state();
    Stack<Function<void()>> functions;
    {
        std::lock_guard lock(s.mutex);
        if (s.count == 0 || --s.count > 0)
            return;
        functions.swap(s.shutdownFunctions);
    }
    // Outside the lock: a shutdown function may itself start and stop the library.
    for (auto it = functions.rbegin(); it != functions.rend(); ++it)
        (*it)();
}

bool isStarted() { return getStartCount() > 0; }

int getStartCount() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.count;
}

void addShutdownFunction(Function<void()> function) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.shutdownFunctions.push_back(std::move(function));
}

} // namespace Quelin::Lib

namespace Quelin {

bool isDevelopmentEnviro() {
    char const* v = std::getenv("QUELIN_DEVELOPMENT");
    return v && *v && String(v) != "0";
}

} // namespace Quelin
