#pragma once

#include "larkspan/platform/archive/ArchiveError.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

/// What is fuzzed: each function takes any bytes and ends the process where the library breaks a promise.
/// `./dev fuzz` runs each under libFuzzer; the tests run all of them over fuzz/corpus/NAME/.
namespace larkspan::fuzz {

/// The item of a frame.
void frame(std::string_view input);
/// A byte that says which classes are admitted, then an archive.
void archive(std::string_view input);
/// A key file.
void keyfile(std::string_view input);
/// A URL, a reference and the bytes of a path, a line each.
void url(std::string_view input);

inline constexpr struct {
  const char* name;
  void (*run)(std::string_view input);
} kTargets[] = {{"frame", frame}, {"archive", archive}, {"keyfile", keyfile}, {"url", url}};

inline void expect(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

/// The one reason why a short value that was read may not be written: what is written as tag 1001 outside a table is
/// deeper by a level than a date of tag 1, and by more than one in a column.
inline bool isDateTooDeep(const platform::Error& error) {
  return error.code() == static_cast<int64_t>(platform::ArchiveErrorCode::tooDeep);
}

}  // namespace larkspan::fuzz
