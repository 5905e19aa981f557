#include "larkspan/platform/text/KeyFile.h"

#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstring>

#include <unistd.h>

namespace larkspan::platform {
namespace {

bool isKeyCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

std::string_view withoutSpaces(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// "de_DE.UTF-8@euro" in pieces, each without its separator.
struct Locale {
  std::string_view language, country, modifier;

  explicit Locale(std::string_view text) {
    if (const std::size_t at = text.find('@'); at != text.npos) {
      modifier = text.substr(at + 1);
      text = text.substr(0, at);
    }
    text = text.substr(0, text.find('.'));
    const std::size_t underscore = text.find('_');
    language = text.substr(0, underscore);
    if (underscore != text.npos) country = text.substr(underscore + 1);
  }

  std::string name(bool withCountry, bool withModifier) const {
    std::string result(language);
    if (withCountry && !country.empty()) result.append("_").append(country);
    if (withModifier && !modifier.empty()) result.append("@").append(modifier);
    return result;
  }
};

bool isLocale(std::string_view text) {
  return !Locale(text).language.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return isKeyCharacter(c) || c == '_' || c == '.' || c == '@';
  });
}

/// The character that "\c" stands for; 0 when it stands for none.
char escaped(char c) {
  switch (c) {
    case 's':
      return ' ';
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'r':
      return '\r';
    case '\\':
    case ';':
      return c;
    default:
      return 0;
  }
}

bool areEscapesSound(std::string_view value) {
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && (++i == value.size() || escaped(value[i]) == 0)) return false;
  }
  return true;
}

/// Resolves the escapes of a value in which they are known to be sound.
std::string unescape(std::string_view value) {
  std::string result;
  for (std::size_t position = 0; position < value.size(); ++position) {
    result += value[position] == '\\' ? escaped(value[++position]) : value[position];
  }
  return result;
}

}  // namespace

std::optional<KeyFile> KeyFile::parse(std::string_view text, KeyFileError& error) {
  KeyFile file;
  error = {};
  const auto refuse = [&](std::string reason) {
    error.reason = std::move(reason);
    return std::nullopt;
  };
  if (text.size() > kMaxSize) return refuse("larger than 64 KiB");

  while (!text.empty()) {
    ++error.line;
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));

    if (line.size() > kMaxLine) return refuse("longer than 4096 bytes");
    if (!isValidUtf8(line)) return refuse("not valid UTF-8");
    if (std::any_of(line.begin(), line.end(), [](char c) { return isControl(c) && c != '\t'; })) {
      return refuse("a control character");
    }
    if (line.starts_with('#') || withoutSpaces(line).empty()) continue;

    if (line.front() == '[') {
      const std::string_view name = withoutSpaces(line).substr(1);
      if (name.size() < 2 || name.find_first_of("[]") != name.size() - 1 || name.back() != ']' ||
          std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c > '~'; })) {
        return refuse("a malformed group header");
      }
      const std::string group(name.substr(0, name.size() - 1));
      if (file.hasGroup(group)) return refuse("the group " + group + " stands here again");
      file.groups_.push_back(group);
      continue;
    }

    const std::size_t equals = line.find('=');
    if (equals == line.npos) return refuse("neither a group, a key nor a comment");
    std::string_view key = withoutSpaces(line.substr(0, equals));
    Entry entry;
    if (const std::size_t bracket = key.find('['); bracket != key.npos) {
      if (key.back() != ']') return refuse("a malformed key");
      const std::string_view locale = key.substr(bracket + 1, key.size() - bracket - 2);
      if (!isLocale(locale)) return refuse("a malformed locale");
      entry.locale = Locale(locale).name(true, true);
      key = key.substr(0, bracket);
    }
    if (key.empty() || line.front() == ' ' || line.front() == '\t' ||
        !std::all_of(key.begin(), key.end(), isKeyCharacter)) {
      return refuse("a malformed key");
    }
    if (file.groups_.empty()) return refuse("a key before the first group");
    entry.group = file.groups_.size() - 1;
    entry.key = key;
    entry.value = withoutSpaces(line.substr(equals + 1));
    if (!areEscapesSound(entry.value)) return refuse("an unknown escape in the value of " + entry.key);
    if (file.find(file.groups_.back(), entry.key, entry.locale)) {
      return refuse("the key " + entry.key + " stands here again");
    }
    if (file.entries_.size() == kMaxKeys) return refuse("more than 512 keys");
    file.entries_.push_back(std::move(entry));
  }
  error = {};
  return file;
}

std::optional<KeyFile> KeyFile::read(int descriptor, KeyFileError& error) {
  // One byte more than may be, so that a larger file shows.
  std::string text(kMaxSize + 1, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count = ::read(descriptor, text.data() + size, text.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      error = {0, std::strerror(errno)};
      return std::nullopt;
    }
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  return parse(std::string_view(text).substr(0, size), error);
}

const KeyFile::Entry* KeyFile::find(std::string_view group, std::string_view key,
                                    std::string_view locale) const {
  for (const Entry& entry : entries_) {
    if (entry.key == key && entry.locale == locale && groups_[entry.group] == group) return &entry;
  }
  return nullptr;
}

bool KeyFile::hasGroup(std::string_view group) const {
  return std::find(groups_.begin(), groups_.end(), group) != groups_.end();
}

std::optional<std::string> KeyFile::string(std::string_view group, std::string_view key) const {
  const Entry* entry = find(group, key, {});
  return entry ? std::optional(unescape(entry->value)) : std::nullopt;
}

std::optional<std::string> KeyFile::localizedString(std::string_view group, std::string_view key,
                                                    std::string_view locale) const {
  const Locale wanted(locale);
  const std::array<std::pair<bool, bool>, 4> order{
      {{true, true}, {true, false}, {false, true}, {false, false}}};
  for (const auto& [withCountry, withModifier] : order) {
    const std::string name = wanted.name(withCountry, withModifier);
    if (name.empty()) break;
    if (const Entry* entry = find(group, key, name)) return unescape(entry->value);
  }
  return string(group, key);
}

std::optional<bool> KeyFile::boolean(std::string_view group, std::string_view key) const {
  const Entry* entry = find(group, key, {});
  if (!entry || (entry->value != "true" && entry->value != "false")) return std::nullopt;
  return entry->value == "true";
}

std::string messagesLocale() {
  const char* name = std::setlocale(LC_MESSAGES, nullptr);
  return name ? name : "C";
}

}  // namespace larkspan::platform
