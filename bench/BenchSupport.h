// What the benchmark suites share: latency records, a log sink that takes
// nothing, and the brief mode of CI.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "src/LogWriter.h"

namespace kiv {

using Clock = std::chrono::steady_clock;

// KIVR_BENCH_QUICK=1: every measurement once, briefly (CI).
inline bool quick() {
    const char* value = getenv("KIVR_BENCH_QUICK");
    return value != nullptr && value[0] == '1';
}

// Results kept for the ratios printed after a run.
inline std::map<std::string, double> sResults;

struct Latencies {
    std::vector<double> us;
    void add(Clock::duration d) {
        us.push_back(std::chrono::duration<double, std::micro>(d).count());
    }
    double percentile(double p) {
        if (us.empty()) return 0;
        std::sort(us.begin(), us.end());
        return us[std::min(us.size() - 1, static_cast<size_t>(p * static_cast<double>(us.size())))];
    }
    void report(benchmark::State& state, const std::string& name) {
        const double p50 = percentile(0.50), p99 = percentile(0.99);
        state.counters["p50_us"] = p50;
        state.counters["p99_us"] = p99;
        state.counters["max_us"] = us.empty() ? 0 : us.back();
        sResults[name + ".p50"] = p50;
        sResults[name + ".p99"] = p99;
        sResults[name + ".max"] = us.empty() ? 0 : us.back();
    }
};

// Takes nothing: lines for it are not even formatted.
class DiscardWriter : public LogWriter {
  public:
    void write(LogLevel, std::string, std::string) override {}
    int convertPrio(LogLevel) override { return 0; }
    bool isLoggable(LogLevel) override { return false; }
};

// The median of a set of measurements.
inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace kiv
