#pragma once
// What every fuzz target defines. With clang the targets are libFuzzer
// programs; with other compilers ReplayMain.cpp supplies a main that runs the
// files it is given (a corpus, a crash) through the same function.
#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace FerrimFuzz {
inline std::string_view asText(std::uint8_t const* data, std::size_t size) {
    return {reinterpret_cast<char const*>(data), size};
}
} // namespace FerrimFuzz
