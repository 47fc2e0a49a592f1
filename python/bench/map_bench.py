"""Mapping a UHD frame through the default pipeline from Python against the same call from C++.

Both map the same float32 buffer in the same process, refilled before every run, in pairs of
one Python and one C++ run (which goes first alternates). The machine is shared, so its load
changes from one second to the next: the ratio is the median of the ratios within each pair,
which see about the same load, rather than a ratio of two separately noisy totals.
Prints: ratio python_map_vs_cpp VALUE (target <= 1.1)
"""
import sys
import time

import numpy as np

import ferrim
import _ferrim_bench

WIDTH, HEIGHT = 3840, 2160
RUNS = int(sys.argv[1]) if len(sys.argv) > 1 else 15


def main():
    # Scene-linear values as a render gives them: mostly below 1, some highlights.
    source = np.random.default_rng(1).exponential(0.4, size=(HEIGHT, WIDTH, 3)).astype(np.float32)
    work = np.empty_like(source)
    pipeline = ferrim.Pipeline.default()
    native = _ferrim_bench.DefaultPipelineMapping(WIDTH, HEIGHT)

    def python_run():
        start = time.perf_counter()
        pipeline.map(work, in_place=True)
        return time.perf_counter() - start

    def cpp_run():
        return native.map_seconds(work)

    results = {"python": [], "cpp": []}
    for run in range(RUNS + 1):
        order = (("python", python_run), ("cpp", cpp_run))
        for name, timed in order if run % 2 else order[::-1]:
            np.copyto(work, source)
            seconds = timed()
            if run:  # the first pair warms the pages and the thread pool
                results[name].append(seconds)
    np.copyto(work, source)
    pipeline.map(work, in_place=True)
    check = work.copy()
    np.copyto(work, source)
    native.map_seconds(work)
    assert np.array_equal(check, work), "Python and C++ results differ"

    for name, times in results.items():
        print(f"{name:6s} min {min(times) * 1e3:8.2f} ms  median {np.median(times) * 1e3:8.2f} ms  ({len(times)} runs)")
    pairs = np.array(results["python"]) / np.array(results["cpp"])
    print(f"pair ratios min {pairs.min():.3f}  median {np.median(pairs):.3f}  max {pairs.max():.3f}")
    print(f"ratio python_map_vs_cpp {np.median(pairs):.4g} (target <= 1.1)")


if __name__ == "__main__":
    main()
