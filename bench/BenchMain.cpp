#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <vector>

#include "BenchRatios.h"
#include "Ferrim/Ferrim.h"

namespace FerrimBench {
namespace {
struct Ratio {
    std::string name, target;
    std::function<std::optional<double>(Results const&)> compute;
};
std::vector<Ratio>& ratios() {
    static std::vector<Ratio> r;
    return r;
}

/// Console output as usual, plus the time per item of every run for the ratios.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    CollectingReporter(Results& results, OutputOptions options) : ConsoleReporter(options), mResults(results) {}
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (auto const& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            double const seconds = run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(run.time_unit);
            double perItem = seconds;
            if (auto it = run.counters.find("items_per_second"); it != run.counters.end() && it->second.value > 0)
                perItem = 1.0 / it->second.value;
            // Ratios name benchmarks without run options such as "/min_time:2.000" or "/repeats:5".
            std::string name = run.benchmark_name();
            for (char const* option : {"/min_time:", "/repeats:"})
                for (std::size_t p; (p = name.find(option)) != std::string::npos;) {
                    std::size_t const end = name.find('/', p + 1);
                    name.erase(p, end == std::string::npos ? std::string::npos : end - p);
                }
            mResults.record(name, perItem);
        }
    }

private:
    Results& mResults;
};
} // namespace

std::optional<double> Results::secondsPerItem(std::string const& name) const {
    auto it = mSeconds.find(name);
    if (it == mSeconds.end()) return std::nullopt;
    return it->second;
}

bool addRatio(std::string name, std::string target, std::function<std::optional<double>(Results const&)> compute) {
    ratios().push_back({std::move(name), std::move(target), std::move(compute)});
    return true;
}

} // namespace FerrimBench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Quelin::Ferrim::startup();
    FerrimBench::Results results;
    // Colour only on a terminal: logs and scripts read the ratio lines.
    bool const colour = isatty(STDOUT_FILENO) != 0;
    FerrimBench::CollectingReporter reporter(
        results, colour ? benchmark::ConsoleReporter::OO_ColorTabular : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // The console reporter ends with a colour reset: leave it on a line of its own.
    if (colour) std::cout << '\n';
    for (auto const& r : FerrimBench::ratios()) {
        if (auto v = r.compute(results)) {
            char line[256];
            std::snprintf(line, sizeof line, "ratio %s %.4g (target %s)\n", r.name.c_str(), *v, r.target.c_str());
            std::cout << line;
        }
    }
    std::cout.flush();
    benchmark::Shutdown();
    Quelin::Ferrim::shutdown();
    return 0;
}
