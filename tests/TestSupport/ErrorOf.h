#pragma once
// The message of the library exception a call throws.
#include <string>

#include "QuelinLib/Exception.h"

namespace Quelin::Testing {

/// What `f` throws as a library exception, or "no error".
template <typename F> std::string errorOf(F&& f) {
    try {
        f();
    } catch (Exception const& e) {
        return e.what();
    }
    return "no error";
}

} // namespace Quelin::Testing
