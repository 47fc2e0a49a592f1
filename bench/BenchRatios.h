#pragma once
// Ratios between benchmarks of one run, printed after all runs as
//   ratio NAME VALUE (target OP X)
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace FerrimBench {

/// Figures of the benchmarks that ran, by their full names.
class Results {
public:
    /// Seconds of real time per item (per iteration when the benchmark set no
    /// items processed); empty when the benchmark did not run.
    std::optional<double> secondsPerItem(std::string const& name) const;
    /// Items per second; empty when it did not run.
    std::optional<double> itemsPerSecond(std::string const& name) const {
        auto s = secondsPerItem(name);
        return s && *s > 0 ? std::optional<double>(1.0 / *s) : std::nullopt;
    }
    /// Of repeated runs the fastest counts: the rest of the machine can only
    /// ever slow a run down, so the minimum is the least disturbed figure.
    void record(std::string const& name, double secondsPerItem) {
        auto const [it, added] = mSeconds.emplace(name, secondsPerItem);
        if (!added && secondsPerItem < it->second) it->second = secondsPerItem;
    }

private:
    std::map<std::string, double> mSeconds;
};

/// Registers a ratio line; `target` is printed as is ("<= 1.0", ">= 10").
/// Lines whose inputs did not run (filtered out) are not printed.
bool addRatio(std::string name, std::string target, std::function<std::optional<double>(Results const&)> compute);

/// Ratio of the time per item of `ours` over `peer`'s.
inline std::function<std::optional<double>(Results const&)> timeRatio(std::string ours, std::string peer) {
    return [=](Results const& r) -> std::optional<double> {
        auto a = r.secondsPerItem(ours), b = r.secondsPerItem(peer);
        if (!a || !b || *b <= 0) return std::nullopt;
        return *a / *b;
    };
}

} // namespace FerrimBench

#define FERRIM_BENCH_CONCAT2(a, b) a##b
#define FERRIM_BENCH_CONCAT(a, b) FERRIM_BENCH_CONCAT2(a, b)
/// FERRIM_BENCH_RATIO("noise_regular_vs_stb", "<= 1.0", FerrimBench::timeRatio("A", "B"));
#define FERRIM_BENCH_RATIO(name, target, compute)                                                                      \
    static bool const FERRIM_BENCH_CONCAT(sFerrimRatio_, __LINE__) = ::FerrimBench::addRatio(name, target, compute)
