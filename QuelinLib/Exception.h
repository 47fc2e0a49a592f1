#pragma once
#include <exception>
#include <stdexcept>
#include "QuelinLib/Base.h"

namespace Quelin {

/// Base of the library's exceptions: a message text.
class Exception : public std::runtime_error {
public:
    explicit Exception(String const& message) : std::runtime_error(message) {}
};

/// Thrown by the fatal stop: a state the code does not allow was reached.
/// Carries the module path (as "maps/CellularMap") and the line that stopped.
class StopException : public Exception {
public:
    StopException(String sourceFile, int line);
    String const& getSourceFile() const { return mSourceFile; }
    int getLine() const { return mLine; }

private:
    String mSourceFile;
    int mLine;
};

/// Text of any exception (also of unknown ones), for logs and error lines.
String exceptionToString(std::exception_ptr const& e);

namespace Detail {
[[noreturn]] void throwStopException(StringView sourceFile, int line);
}

} // namespace Quelin
