#include "larkspan/platform/desktop/RecentFiles.h"

#include "larkspan/platform/base/URL.h"

#include <algorithm>
#include <charconv>

namespace larkspan::platform {

namespace {

constexpr std::string_view kSpaces = " \t\r\n";

/// What stands in the text up to `end`, and `end`, are taken off; all of it if there is no `end`.
std::string_view takeUpTo(std::string_view& text, std::string_view end) {
  const std::size_t at = text.find(end);
  const std::string_view result = text.substr(0, at);
  text.remove_prefix(at == text.npos ? text.size() : at + end.size());
  return result;
}

void skipSpaces(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpaces), text.size()));
}

/// An ASCII character from a reference such as "amp", "#38" or "#x26"; 0 for any other. A URL or a date has
/// no others.
char characterOf(std::string_view reference) {
  constexpr std::pair<std::string_view, char> kNamed[] = {
      {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
  for (const auto& [name, character] : kNamed) {
    if (reference == name) return character;
  }
  if (!reference.starts_with('#')) return 0;
  reference.remove_prefix(1);
  const bool isHexadecimal = reference.starts_with('x');
  if (isHexadecimal) reference.remove_prefix(1);
  unsigned code = 0;
  const char* const end = reference.data() + reference.size();
  const auto read = std::from_chars(reference.data(), end, code, isHexadecimal ? 16 : 10);
  return read.ec == std::errc() && read.ptr == end && code < 0x80 ? static_cast<char>(code) : '\0';
}

/// The value of an attribute with its references resolved; nothing where one is unknown.
std::optional<std::string> resolved(std::string_view value) {
  std::string result;
  while (!value.empty()) {
    result += value.substr(0, value.find('&'));
    value.remove_prefix(std::min(value.find('&'), value.size()));
    if (value.empty()) break;
    value.remove_prefix(1);
    const char character = characterOf(takeUpTo(value, ";"));
    if (!character) return std::nullopt;
    result += character;
  }
  return result;
}

/// What one bookmark says.
struct Bookmark {
  std::string path;
  std::optional<Date> used;

  void set(std::string_view name, std::string_view value) {
    const bool isDate = name == "added" || name == "modified" || name == "visited";
    if (!isDate && name != "href") return;
    const auto text = resolved(value);
    if (!text) return;
    if (isDate) {
      if (const auto date = Date::parse(*text)) used = used ? std::max(*used, *date) : *date;
    } else if (const auto url = URL::parse(*text); url && url->isFileURL()) {
      path = url->path();
      if (!path.ends_with('/')) path += '/';
    }
  }
};

/// Reads the attributes of a start tag, from behind its name to behind its ">".
Bookmark bookmarkFrom(std::string_view& text) {
  Bookmark bookmark;
  for (;;) {
    skipSpaces(text);
    const std::size_t nameSize = std::min(text.find_first_of(" \t\r\n=/><"), text.size());
    const std::string_view name = text.substr(0, nameSize);
    text.remove_prefix(nameSize);
    skipSpaces(text);
    if (name.empty() || !text.starts_with('=')) return bookmark;
    text.remove_prefix(1);
    skipSpaces(text);
    if (!text.starts_with('"') && !text.starts_with('\'')) return bookmark;
    const std::string_view quote = text.substr(0, 1);
    text.remove_prefix(1);
    bookmark.set(name, takeUpTo(text, quote));
  }
}

}  // namespace

RecentFiles::RecentFiles(std::string_view xbel) {
  constexpr std::string_view kTag = "bookmark";
  while (!xbel.empty()) {
    takeUpTo(xbel, "<");
    if (xbel.starts_with("!--")) {
      takeUpTo(xbel, "-->");
    } else if (xbel.starts_with("![CDATA[")) {
      takeUpTo(xbel, "]]>");
    } else if (xbel.starts_with(kTag) && xbel.size() > kTag.size() &&
               kSpaces.find(xbel[kTag.size()]) != kSpaces.npos) {
      xbel.remove_prefix(kTag.size());
      Bookmark bookmark = bookmarkFrom(xbel);
      if (!bookmark.path.empty() && bookmark.used)
        uses_.emplace_back(std::move(bookmark.path), *bookmark.used);
    }
  }
  std::sort(uses_.begin(), uses_.end());
}

std::optional<Date> RecentFiles::lastUsed(std::string_view path) const {
  std::string folder(path);
  if (!folder.ends_with('/')) folder += '/';
  std::optional<Date> latest;
  auto use =
      std::lower_bound(uses_.begin(), uses_.end(), folder,
                       [](const auto& entry, const std::string& wanted) { return entry.first < wanted; });
  for (; use != uses_.end() && use->first.starts_with(folder); ++use) {
    if (!latest || *latest < use->second) latest = use->second;
  }
  return latest;
}

}  // namespace larkspan::platform
