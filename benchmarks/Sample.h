#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What all competitors carry: the ten fields of a resource, as plain data.
namespace larkspan::benchmarks {

inline constexpr int kItems = 10'000;

struct Sample {
  std::string kind = "RESOURCE";
  std::string name;
  std::string url;
  std::string category = "applications";
  int64_t size;
  int64_t seconds;  ///< Of the three dates; their nanoseconds are 5, 6 and 7.
};

inline Sample sample(int number) {
  const std::string text = std::to_string(number);
  Sample made;
  made.name = "Resource number " + text;
  made.url = "file:///home/user/.cache/application/" + text;
  made.size = number * int64_t{4096};
  made.seconds = 1'700'000'000 + number;
  return made;
}

inline std::vector<Sample> samples(int count) {
  std::vector<Sample> made;
  made.reserve(count);
  for (int i = 0; i < count; ++i) made.push_back(sample(i));
  return made;
}

/// The sum that each competitor finds in its answer, so that none may leave its items unread.
inline int64_t expectedSum(int count) {
  int64_t sum = 0;
  for (const Sample& item : samples(count)) sum += item.size;
  return sum;
}

}  // namespace larkspan::benchmarks
