#include "QuelinLib/Exception.h"

namespace Quelin {

StopException::StopException(String sourceFile, int line)
    : Exception("Internal error: stop in " + sourceFile + " at line " + std::to_string(line)),
      mSourceFile(std::move(sourceFile)), mLine(line) {}

String exceptionToString(std::exception_ptr const& e) {
    if (!e) return "no exception";
    try {
        std::rethrow_exception(e);
    } catch (std::exception const& ex) {
        return ex.what();
    } catch (...) {
        return "unknown exception";
    }
}

namespace Detail {
void throwStopException(StringView sourceFile, int line) { throw StopException(String(sourceFile), line); }
} // namespace Detail

} // namespace Quelin
