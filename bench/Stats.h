// The figures the benchmarks report: microseconds and percentiles of a series.
#ifndef BENCH_STATS_H
#define BENCH_STATS_H

#include <algorithm>
#include <chrono>
#include <vector>

namespace bench {

inline double Micros(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

// The value below which a fraction `p` of the series lies; 0 for an empty series.
inline double Percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

}  // namespace bench

#endif
