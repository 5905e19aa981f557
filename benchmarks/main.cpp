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

constexpr const char* kSubjects =
    "exchange      a question of one process and the answer of another, without items\n"
    "items         the same with 10,000 items of ten fields in the answer, of which the sizes are asked for; "
    "both begin in the completion of the one before\n"
    "…-waited      the same, each begun by a thread that waits for its end\n"
    "archive       writing 10,000 items and reading them back, of which the sizes are asked for\n"
    "…-read        the same, and all ten fields are asked for\n"
    "serial, pool  a million tasks through a queue that runs one at a time, and through one that uses all "
    "processors\n"
    "discovery     finding 1,000 extensions\n"
    "…/raw         the bytes of larkspan over a bare socket, or the same files just read\n";

struct Ratio {
  const char* ours;
  const char* theirs;
  double goal;  ///< At most; 0 where there is none.
};

constexpr Ratio kRatios[] = {
    {"exchange/larkspan", "exchange/raw", 0},
    {"exchange/capnproto", "exchange/raw", 0},
    {"exchange/larkspan", "exchange/capnproto", 1.0},
    {"exchange-waited/larkspan", "exchange/capnproto", 0},
    {"items/larkspan", "items/raw", 0},
    {"items/larkspan", "items/capnproto", 0.5},
    {"items-read/larkspan", "items-read/capnproto", 0.5},
    {"archive/larkspan", "archive/protobuf", 0.7},
    {"archive-read/larkspan", "archive-read/protobuf", 0.7},
    {"serial/larkspan", "serial/glib", 0.25},
    {"pool/larkspan", "pool/glib", 0.5},
    {"discovery/larkspan", "discovery/raw", 0},
};

class Report : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        std::fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
        hasFailed_ = true;
      } else if (run.run_type == Run::RT_Iteration) {
        times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
      }
    }
  }
  bool hasFailed() const { return hasFailed_; }
  void Finalize() override {
    std::printf("\n%s\n%-24s %11s %11s %11s  %s\n", kSubjects, "time in µs of", "least", "median", "most",
                "runs");
    for (auto& [name, times] : times_) {
      const auto [least, most] = std::minmax_element(times.begin(), times.end());
      const double lowest = *least, highest = *most;
      std::printf("%-24s %11.1f %11.1f %11.1f  %zu\n", name.c_str(), lowest, median(times), highest,
                  times.size());
    }
    std::printf("\n%-24s %-24s %7s %13s\n", "time of", "over time of", "ratio", "goal: at most");
    for (const Ratio& ratio : kRatios) {
      const auto ours = times_.find(ratio.ours);
      const auto theirs = times_.find(ratio.theirs);
      if (ours == times_.end() || theirs == times_.end()) continue;
      const double found = median(ours->second) / median(theirs->second);
      std::printf("%-24s %-24s %7.2f", ratio.ours, ratio.theirs, found);
      if (ratio.goal > 0) std::printf(" %13.2f%s", ratio.goal, found <= ratio.goal ? "" : "  missed");
      std::printf("\n");
    }
  }

 private:
  static double median(std::vector<double>& times) {
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
  }

  std::map<std::string, std::vector<double>> times_;
  bool hasFailed_ = false;
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
  return report.hasFailed();
}
