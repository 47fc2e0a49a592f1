// Loading one sky configuration from a data file in the page cache, against a
// plain read of the same byte ranges (the floor any loader pays); and the half
// conversion against a copy of the floats it produces.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>

#include "../tests/Ferrim/SkyMap/SkyTestFiles.h"
#include "BenchRatios.h"
#include "Ferrim/SkyMap/HalfConversion.h"
#include "Ferrim/SkyMap/PrgSkyModelData.h"

using namespace Quelin;
namespace Files = Quelin::Testing::SkyFiles;

namespace {

PrgSkyModelData::Configuration const CONFIGURATION{{0, 0, 0}, 2, 7};

/// A sparse sky data file holding CONFIGURATION's slices, removed at exit.
struct SkyFile {
    Io::Path folder;
    SkyFile() {
        folder = Io::StandardPaths::temporary() / ("ferrim_sky_bench_" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(folder);
        Files::writeSkyFile(folder / "PrgSkyModelData.dat", {{{0, 0, 0}, 2, 7}});
        Io::StandardPaths::setPrgSkyModelData(folder);
    }
    ~SkyFile() {
        Io::StandardPaths::setPrgSkyModelData({});
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};
SkyFile const& skyFile() {
    static SkyFile const file;
    return file;
}

void SkyLoadConfiguration(benchmark::State& state) {
    skyFile();
    std::int64_t bytes = 0;
    for (auto _ : state) {
        PrgSkyModelData const data(CONFIGURATION); // locate, open, check, read, check the scales
        bytes = data.getLoadStats().bytesRead;
        benchmark::DoNotOptimize(data.getRecord(2, 1, 1, 1, 29)[PrgSkyModelData::RECORD_FLOATS - 1]);
    }
    state.counters["bytes_read"] = double(bytes);
}
BENCHMARK(SkyLoadConfiguration)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void SkyRawReadSameBytes(benchmark::State& state) {
    // The byte ranges of CONFIGURATION, from the documented layout.
    std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
    for (int c = 0; c < 3; ++c)
        for (int two : Files::bracketOf(CONFIGURATION.channelIndex[std::size_t(c)], 2))
            for (int a : Files::bracketOf(CONFIGURATION.indexA, 6))
                ranges.emplace_back(Files::skyRecordOffset(c, two, a, CONFIGURATION.indexB, 0), 2 * Files::SKY_B);
    ranges.emplace_back(Files::SKY_GRID_START + CONFIGURATION.indexB * Files::SKY_GRID_B, 2 * Files::SKY_GRID_B);
    for (int a : Files::bracketOf(CONFIGURATION.indexA, 6))
        ranges.emplace_back(Files::SKY_ROWS_START + a * Files::SKY_ROW_A + CONFIGURATION.indexB * Files::SKY_ROW_B,
                            2 * Files::SKY_ROW_B);
    std::int64_t total = 0;
    for (auto const& r : ranges)
        total += r.second;

    Io::Path const path = skyFile().folder / "PrgSkyModelData.dat";
    for (auto _ : state) {
        auto stream = Io::FileInputStream::open(path);
        auto buffer = std::make_unique_for_overwrite<std::byte[]>(std::size_t(total));
        std::int64_t at = 0;
        for (auto const& [offset, size] : ranges) {
            if (!(*stream)->seek(offset, Io::SeekOrigin::Begin) ||
                !(*stream)->read(buffer.get() + at, std::size_t(size))) {
                state.SkipWithError("read failed");
                return;
            }
            at += size;
        }
        benchmark::DoNotOptimize(buffer.get());
    }
    state.counters["bytes_read"] = double(total);
}
BENCHMARK(SkyRawReadSameBytes)->Unit(benchmark::kMillisecond)->MinTime(2.0);

FERRIM_BENCH_RATIO("sky_load_vs_raw_read", "<= 1.5", FerrimBench::timeRatio("SkyLoadConfiguration", "SkyRawReadSameBytes"));

// One sky slab's worth of halves: 3.2 million.
constexpr std::size_t HALVES = 720 * 4438;

std::vector<std::uint16_t> const& halves() {
    static std::vector<std::uint16_t> const h = [] {
        std::vector<std::uint16_t> v(HALVES);
        for (std::size_t i = 0; i < v.size(); ++i)
            v[i] = Files::halfAt(std::int64_t(i));
        return v;
    }();
    return h;
}

void runConversion(benchmark::State& state, void (*convert)(void const*, float*, std::size_t)) {
    std::vector<float> out(HALVES);
    for (auto _ : state) {
        convert(halves().data(), out.data(), HALVES);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(HALVES));
}
void SkyHalfToFloat(benchmark::State& state) { runConversion(state, &convertHalvesToFloats); }
void SkyHalfToFloatPortable(benchmark::State& state) { runConversion(state, &Detail::convertHalvesToFloatsPortable); }
BENCHMARK(SkyHalfToFloat)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(SkyHalfToFloatPortable)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

void SkyFloatCopy(benchmark::State& state) {
    std::vector<float> const in(HALVES, 1.f);
    std::vector<float> out(HALVES);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), HALVES * sizeof(float));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(HALVES));
}
BENCHMARK(SkyFloatCopy)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

FERRIM_BENCH_RATIO("sky_half_to_float_vs_float_copy", "<= 1.5", FerrimBench::timeRatio("SkyHalfToFloat", "SkyFloatCopy"));

} // namespace
