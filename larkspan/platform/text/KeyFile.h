#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// Why a key file was refused.
struct KeyFileError {
  std::size_t line = 0;  ///< From 1; 0 where the file as a whole is at fault.
  std::string reason;    ///< In English, for the log.
};

/// A key file in the desktop-entry format of freedesktop.org: groups, comments, localized keys and
/// escapes. Read strictly: anything malformed refuses the file.
/// Owner:   the caller; a value.
/// Failure: parsing gives nothing and says line and reason; a key that is not there reads as nothing.
/// Limits:  64 KiB, 4096 bytes a line, 512 keys.
class KeyFile {
 public:
  static constexpr std::size_t kMaxSize = 64 * 1024;
  static constexpr std::size_t kMaxLine = 4096;
  static constexpr std::size_t kMaxKeys = 512;

  static std::optional<KeyFile> parse(std::string_view text, KeyFileError& error);
  /// Reads the open file from its position to its end; never more than `kMaxSize`.
  static std::optional<KeyFile> read(int descriptor, KeyFileError& error);

  bool hasGroup(std::string_view group) const;
  /// The text of an unlocalized key, escapes resolved.
  std::optional<std::string> string(std::string_view group, std::string_view key) const;
  /// The text that matches `locale` ("lang_COUNTRY.ENCODING@MODIFIER", any part but the first may be missing)
  /// best, in the order of the format: lang_COUNTRY@MODIFIER, lang_COUNTRY, lang@MODIFIER, lang, unlocalized.
  std::optional<std::string> localizedString(std::string_view group, std::string_view key,
                                             std::string_view locale) const;
  /// "true" or "false"; any other text reads as nothing, which `string` tells from a missing key.
  std::optional<bool> boolean(std::string_view group, std::string_view key) const;

 private:
  struct Entry {
    std::size_t group;
    std::string key;
    std::string locale;  ///< Without encoding.
    std::string value;   ///< As in the file; its escapes are known to be sound.
  };

  const Entry* find(std::string_view group, std::string_view key, std::string_view locale) const;

  std::vector<std::string> groups_;
  std::vector<Entry> entries_;
};

/// The locale that the program uses for messages, for `localizedString`: "C" unless it chose one with
/// setlocale(3).
std::string messagesLocale();

}  // namespace larkspan::platform
