#pragma once
// Sets (or, with a null value, clears) one environment variable for a scope
// and puts back what it was.
#include <cstdlib>
#include <optional>
#include <string>

namespace Quelin::Testing {

class ScopedEnv {
public:
    ScopedEnv(char const* name, char const* value) : mName(name) {
        if (char const* old = std::getenv(name)) mOld = old;
        set(value);
    }
    ~ScopedEnv() { set(mOld ? mOld->c_str() : nullptr); }
    ScopedEnv(ScopedEnv const&) = delete;
    ScopedEnv& operator=(ScopedEnv const&) = delete;
    void set(char const* value) const { value ? ::setenv(mName.c_str(), value, 1) : ::unsetenv(mName.c_str()); }

private:
    std::string mName;
    std::optional<std::string> mOld;
};

} // namespace Quelin::Testing
