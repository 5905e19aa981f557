#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/URL.h"

#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

/// What all competitors carry: the ten fields of a resource, as plain data.
namespace larkspan::benchmarks {

inline constexpr int kItems = 10'000;

struct Sample {
  std::string kind = "RESOURCE";
  std::string name;
  std::string url;
  std::string category;
  int64_t size;
  platform::Date created, modified, opened;
  bool deletable, revealable;
};

/// Items as in the caches of a home, in no order, the same in each process. Names and URLs begin and end in many ways,
/// sizes are of all orders of magnitude, and no date is another's.
inline std::vector<Sample> samples(int count) {
  static constexpr std::string_view kRoots[] = {"/home/user/.cache/", "/home/user/.var/app/",
                                                "/home/user/.local/share/", "/var/cache/"};
  static constexpr std::string_view kOwners[] = {"browser/profile.default/",
                                                 "mail/",
                                                 "thumbnails/large/",
                                                 "fonts/",
                                                 "maps/tiles/12/",
                                                 "Video Editor/proxies/",
                                                 "shaders/gpu-0/",
                                                 "packages/archives/",
                                                 "music/covers/",
                                                 "photos/2023/Müller/"};
  static constexpr std::string_view kWords[] = {
      "index", "Übersicht", "thumb", "report", "IMG",     "session", "backup", "draft",  "cover",
      "tile",  "holiday",   "a",     "script", "preview", "写真",    "track",  "update", "license"};
  static constexpr std::string_view kEndings[] = {"",       ".png",  ".sqlite-wal", ".json",
                                                  ".log.1", ".jpeg", ".tmp"};
  static constexpr std::string_view kCategories[] = {"applications", "browsers", "mail", "media",
                                                     "development",  "fonts",    "other"};
  static constexpr int64_t kYear = 365 * 86'400;

  std::mt19937_64 random(20'240'229);
  // No distribution of the library's: its numbers are not the same everywhere.
  const auto below = [&](uint64_t limit) { return random() % limit; };
  const auto oneOf = [&](const auto& texts) { return std::string(texts[below(std::size(texts))]); };
  const auto after = [&](int64_t seconds, uint64_t range) {
    return platform::Date{seconds + static_cast<int64_t>(below(range)),
                          static_cast<uint32_t>(below(1'000'000'000))};
  };
  std::vector<Sample> made(static_cast<std::size_t>(count));
  for (Sample& item : made) {
    for (uint64_t words = 1 + below(4); words > 0; --words)
      item.name += oneOf(kWords) + (below(8) == 0 ? ' ' : '-');
    item.name += std::to_string(random() >> below(64)) + oneOf(kEndings);
    item.url = platform::URL::file(oneOf(kRoots) + oneOf(kOwners) + item.name).absoluteString();
    item.category = oneOf(kCategories);
    item.size = static_cast<int64_t>(random() >> (29 + below(34)));
    item.created = after(1'600'000'000, 3 * kYear);
    item.modified = after(item.created.seconds, kYear);
    item.opened = after(item.modified.seconds, kYear);
    item.deletable = below(8) != 0;
    item.revealable = below(4) != 0;
  }
  return made;
}

/// Adds up what is read of items, so that none may leave it unread: each competitor must come to the same sum.
class Sum {
 public:
  void text(std::size_t length) { sum_ += length; }
  void size(int64_t bytes) { sum_ += static_cast<uint64_t>(bytes); }
  void date(int64_t seconds, uint32_t nanoseconds) { sum_ += static_cast<uint64_t>(seconds) + nanoseconds; }
  void flags(bool deletable, bool revealable) { sum_ += deletable + 2 * revealable; }
  friend bool operator==(const Sum&, const Sum&) = default;

 private:
  uint64_t sum_ = 0;
};

/// What a reader asks of each item.
enum class Reads { sizes, all };

inline Sum expectedSum(int count, Reads reads) {
  Sum sum;
  for (const Sample& item : samples(count)) {
    sum.size(item.size);
    if (reads == Reads::sizes) continue;
    for (const std::string* text : {&item.kind, &item.name, &item.url, &item.category})
      sum.text(text->size());
    for (const platform::Date& date : {item.created, item.modified, item.opened})
      sum.date(date.seconds, date.nanoseconds);
    sum.flags(item.deletable, item.revealable);
  }
  return sum;
}

}  // namespace larkspan::benchmarks
