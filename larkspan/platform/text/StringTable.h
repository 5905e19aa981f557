#pragma once

#include <span>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// A key of a string table and its English text, both of static storage.
struct StringTableEntry {
  const char* key;
  const char* english;
};

/// Localized texts by key. English is compiled in; other languages come from gettext catalogues
/// (`FOLDER/LANGUAGE/LC_MESSAGES/DOMAIN.mo`) that hold the English text in the context of its key, as
/// pgettext does. The language is the one that the program chose with setlocale(3) for messages, and
/// LANGUAGE; a program that chose none sees English.
/// Owner:  the caller; the entries must outlive it.
/// Thread: any.
/// Limits: a table is searched in sequence.
class StringTable {
 public:
  /// `folder` null: the C library's own catalogue folder.
  StringTable(std::span<const StringTableEntry> entries, const char* domain, const char* folder = nullptr);

  /// The text in the user's language, else in English, else the key itself. UTF-8.
  std::string text(std::string_view key) const;

 private:
  std::span<const StringTableEntry> entries_;
  const char* domain_;
};

}  // namespace larkspan::platform
