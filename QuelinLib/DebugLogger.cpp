#include "QuelinLib/DebugLogger.h"
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <shared_mutex>

namespace Quelin {

namespace {
struct LoggerState {
    std::shared_mutex categoriesMutex;
    std::set<String, std::less<>> categories;
    bool all = false;
    Mutex sinkMutex; // also keeps lines of different threads whole
    DebugLogger::Sink sink;
};

LoggerState& state() {
    static LoggerState* s = new LoggerState(); // lives to the very end: loggers may run in static destructors
    return *s;
}

/// Fast path: nothing enabled at all.
std::atomic<bool> sAnyEnabled{false};

void updateAnyEnabled(LoggerState& s) { sAnyEnabled.store(s.all || !s.categories.empty(), std::memory_order_release); }
} // namespace

DebugLogger::DebugLogger(StringView category, StringView function, StringView sourceFile)
    : mCategory(category), mFunction(function), mSourceFile(sourceFile),
      mEnabled(sAnyEnabled.load(std::memory_order_acquire) && isCategoryEnabled(category)) {}

void DebugLogger::log(StringView message) const {
    if (!mEnabled)
        return;
    String line;
    line.reserve(mCategory.size() + mFunction.size() + mSourceFile.size() + message.size() + 8);
    line.append("[").append(mCategory).append("] ");
    if (!mFunction.empty())
        line.append(mFunction);
    if (!mSourceFile.empty())
        line.append(mFunction.empty() ? "(" : " (").append(mSourceFile).append(")");
    if (!mFunction.empty() || !mSourceFile.empty())
        line.append(": ");
    line.append(message);

    auto& s = state();
    std::lock_guard lock(s.sinkMutex);
    if (s.sink) {
        s.sink(mCategory, line);
    } else {
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }
}

void DebugLogger::enable(StringView category, bool on) {
    auto& s = state();
    std::unique_lock lock(s.categoriesMutex);
    if (category == "*") {
        s.all = on;
        if (!on)
            s.categories.clear();
    } else if (on) {
        s.categories.emplace(category);
    } else if (auto it = s.categories.find(category); it != s.categories.end()) {
        s.categories.erase(it);
    }
    updateAnyEnabled(s);
}

bool DebugLogger::isCategoryEnabled(StringView category) {
    if (!sAnyEnabled.load(std::memory_order_acquire))
        return false;
    auto& s = state();
    std::shared_lock lock(s.categoriesMutex);
    return s.all || s.categories.contains(category);
}

void DebugLogger::disableAll() { enable("*", false); }

void DebugLogger::setSink(Sink sink) {
    auto& s = state();
    std::lock_guard lock(s.sinkMutex);
    s.sink = std::move(sink);
}

void DebugLogger::configureFromEnvironment() {
    char const* const value = std::getenv("QUELIN_DEBUG_LOG");
    if (!value)
        return;
    StringView rest(value);
    while (!rest.empty()) {
        auto const comma = rest.find(',');
        StringView item = rest.substr(0, comma);
        while (!item.empty() && item.front() == ' ')
            item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ')
            item.remove_suffix(1);
        if (!item.empty())
            enable(item);
        if (comma == StringView::npos)
            break;
        rest.remove_prefix(comma + 1);
    }
}

} // namespace Quelin
