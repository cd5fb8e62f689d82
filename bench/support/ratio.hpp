// Benchmarks side by side: runs them in one process, in random order, several times, and prints the ratios of
// the medians of their processor time (ours : peer; below 1 is faster).
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace qel_bench {

struct Comparison {
    std::string ours;  // benchmark names as they are printed
    std::string peer;
    double aim;  // 0 for none
};

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.aggregate_name == "median") times_[run.run_name.str()] = run.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }

    void print(const Comparison& comparison) const {
        double ours = median(comparison.ours);
        double peer = median(comparison.peer);
        if (ours == 0 || peer == 0) return;
        std::printf("ratio %5.2f  %s %.1f : %s %.1f", ours / peer, comparison.ours.c_str(), ours,
                    comparison.peer.c_str(), peer);
        if (comparison.aim != 0) std::printf("  (aim %.2f)", comparison.aim);
        std::printf("\n");
    }

  private:
    double median(const std::string& name) const {
        auto found = times_.find(name);
        return found == times_.end() ? 0 : found->second;
    }

    std::map<std::string, double> times_;
};

// The main() of a benchmark program. Flags on the command line go before the defaults set here.
inline int run(int argc, char** argv, std::initializer_list<Comparison> comparisons) {
    std::vector<std::string> defaults{"--benchmark_repetitions=7",
                                      "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_min_time=0.1", "--benchmark_report_aggregates_only=true"};
    std::vector<char*> args{argv[0]};
    for (std::string& flag : defaults) args.push_back(flag.data());
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const Comparison& comparison : comparisons) reporter.print(comparison);
    return 0;
}

}  // namespace qel_bench
