#pragma once
// Debug log with categories. A category is off until enabled; a logger of a
// disabled category costs one atomic load when built and one branch per call.
#include "QuelinLib/Base.h"
#include <sstream>

namespace Quelin {

class DebugLogger {
  public:
    /// Receives each finished line (without a line break) and its category.
    using Sink = Function<void(StringView category, StringView line)>;

    /// The views must outlive the logger (string literals, as usual).
    explicit DebugLogger(StringView category, StringView function = {}, StringView sourceFile = {});

    bool isEnabled() const { return mEnabled; }
    void log(StringView message) const;
    /// Joins the parts with single spaces: `logger("Loading", path)`.
    template <typename... Parts> void operator()(Parts const&... parts) const {
        if (!mEnabled)
            return;
        std::ostringstream text;
        bool first = true;
        ((text << (first ? "" : " ") << parts, first = false), ...);
        log(text.str());
    }

    /// "*" enables or disables every category at once.
    static void enable(StringView category, bool on = true);
    static bool isCategoryEnabled(StringView category);
    static void disableAll();
    /// An empty sink writes to standard error.
    static void setSink(Sink sink);
    /// Enables the categories listed in QUELIN_DEBUG_LOG ("texture,settings" or "*").
    static void configureFromEnvironment();

  private:
    StringView mCategory;
    StringView mFunction;
    StringView mSourceFile;
    bool mEnabled;
};

} // namespace Quelin
