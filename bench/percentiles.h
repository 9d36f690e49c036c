/*
 * Percentiles of measured times, as the benchmarks print them.
 */
#ifndef CORVANE_BENCH_PERCENTILES_H
#define CORVANE_BENCH_PERCENTILES_H

#include <algorithm>
#include <cstdio>
#include <vector>

namespace corvane::bench {

/* Prints one line: name, number, p50 and p99 in microseconds. samples is sorted by it and not
 * empty. */
inline void printPercentiles(const char *name, std::vector<double> &samplesUs) {
    std::sort(samplesUs.begin(), samplesUs.end());
    const auto at = [&samplesUs](double part) {
        return samplesUs[static_cast<std::size_t>(part *
                                                  static_cast<double>(samplesUs.size() - 1))];
    };
    std::printf("%-44s %7zu samples  p50 %7.1f us  p99 %7.1f us\n", name, samplesUs.size(), at(0.5),
                at(0.99));
}

} // namespace corvane::bench

#endif
