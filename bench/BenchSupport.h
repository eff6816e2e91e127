#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace velmora::bench {

using Clock = std::chrono::steady_clock;

inline double nanosecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::nano>(to - from).count();
}

// The p-th percentile (0..100) of the samples, nearest rank.
inline double percentile(std::vector<double> samples, double p) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const auto rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(rank, samples.size() - 1)];
}

inline void printRow(const std::string& what, double p50, double p99, const char* unit) {
    std::printf("  %-44s p50 %10.1f %s   p99 %10.1f %s\n", what.c_str(), p50, unit, p99, unit);
}

// Makes the compiler assume the value is read and changed here, so work on it is neither hoisted nor dropped.
template <class T>
inline void opaque(T& value) {
    asm volatile("" : "+m"(value) : : "memory");
}

inline void printRatio(const std::string& name, double value) {
    std::printf("RATIO %s %.3f\n", name.c_str(), value);
}

}  // namespace velmora::bench
