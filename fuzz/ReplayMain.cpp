// The main of the fuzz targets where libFuzzer is not available: replays
// every file given, and every file inside the folders given, once.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "FuzzTarget.h"

namespace fs = std::filesystem;

namespace {
int replay(fs::path const& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.string().c_str());
        return 1;
    }
    std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
    return 0;
}
} // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    int runs = 0, failures = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path const p(argv[i]);
        std::error_code ec;
        if (fs::is_directory(p, ec)) {
            for (auto const& e : fs::recursive_directory_iterator(p, ec))
                if (e.is_regular_file()) failures += replay(e.path()), ++runs;
        } else {
            failures += replay(p), ++runs;
        }
    }
    std::printf("replayed %d inputs\n", runs);
    return failures == 0 ? 0 : 1;
}
