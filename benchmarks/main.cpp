// Runs the competitors in turns and ends with a table of ratios: what counts is not the time, which depends
// on the machine and on what else it does, but how we compare with others in the same run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "benchmarks/Peer.h"

namespace {

struct Ratio {
  const char* ours;
  const char* theirs;
  double goal;  ///< At most; 0 where there is none.
};

constexpr Ratio kRatios[] = {
    {"exchange/larkspan", "exchange/raw", 0},
    {"exchange/capnproto", "exchange/raw", 0},
    {"exchange/larkspan", "exchange/capnproto", 1.0},
    {"items/larkspan", "items/raw", 0},
    {"items/capnproto", "items/raw", 0},
    {"items/larkspan", "items/capnproto", 0.5},
    {"archive/larkspan", "archive/protobuf", 0.7},
    {"serial/larkspan", "serial/glib", 0.25},
    {"pool/larkspan", "pool/glib", 0.5},
    {"discovery/larkspan", "discovery/raw", 0},
};

class Report : public benchmark::ConsoleReporter {
 public:
  bool ReportContext(const Context& context) override { return ConsoleReporter::ReportContext(context); }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.run_name.function_name;
      times_[name].push_back(run.GetAdjustedRealTime());
    }
  }
  void Finalize() override {
    std::printf("%-20s %12s  %s\n", "what", "median µs", "of how many");
    for (auto& [name, times] : times_)
      std::printf("%-20s %12.1f  %zu\n", name.c_str(), median(times), times.size());
    std::printf("\n%-20s %-20s %7s %6s\n", "what", "beside", "ratio", "goal");
    for (const Ratio& ratio : kRatios) {
      const auto ours = times_.find(ratio.ours);
      const auto theirs = times_.find(ratio.theirs);
      if (ours == times_.end() || theirs == times_.end()) continue;
      std::printf("%-20s %-20s %7.2f", ratio.ours, ratio.theirs,
                  median(ours->second) / median(theirs->second));
      ratio.goal > 0 ? std::printf(" %6.2f\n", ratio.goal) : std::printf("\n");
    }
  }

 private:
  static double median(std::vector<double>& times) {
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
  }

  std::map<std::string, std::vector<double>> times_;
};

int serve(const char* role) {
  using namespace larkspan::benchmarks;
  if (std::strcmp(role, "raw") == 0) return serveRaw();
  if (std::strcmp(role, "capnproto") == 0) return serveCapnProto();
  return serveExtension(std::atoi(role));
}

}  // namespace

int main(int argc, char** argv) {
  setenv("LARKSPAN_LOG", "none", 1);
  if (argc == 3 && std::strcmp(argv[1], "--peer") == 0) return serve(argv[2]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Report report;
  benchmark::RunSpecifiedBenchmarks(&report);
}
