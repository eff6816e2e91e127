#pragma once

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <cstdlib>
#include <filesystem>

#include "velmora/platform/Environment.h"

namespace velmora::bench {

// Fresh data and caches directories under a new temporary folder, installed as the environment for the
// benchmark's lifetime and removed afterwards.
class ScratchEnvironment {
  public:
    ScratchEnvironment() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/velmora-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        root = pattern;
        environment = platform::Environment::linuxDefaults("velmora-bench");
        environment.dataDirectory = root / "data";
        environment.cachesDirectory = root / "caches";
        environment.documentsDirectory = root / "documents";  // a host's documents folder exists
        std::filesystem::create_directory(*environment.documentsDirectory);
        platform::Environment::install(environment);
    }
    ~ScratchEnvironment() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    ScratchEnvironment(const ScratchEnvironment&) = delete;
    ScratchEnvironment& operator=(const ScratchEnvironment&) = delete;

    std::filesystem::path root;
    platform::Environment environment;
};

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
