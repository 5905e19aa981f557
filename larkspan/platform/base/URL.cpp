#include "larkspan/platform/base/URL.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

constexpr std::string_view kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
constexpr std::string_view kSubDelimiters = "!$&'()*+,;=";

// Not those of <cctype>: they follow the locale, and a URL does not.
bool isDigit(char c) { return c >= '0' && c <= '9'; }
char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
bool isLetter(char c) { return lowered(c) >= 'a' && lowered(c) <= 'z'; }

bool isOneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isTriplet(std::string_view text, std::size_t at) {
  return text[at] == '%' && at + 2 < text.size() && hexValue(text[at + 1]) >= 0 &&
         hexValue(text[at + 2]) >= 0;
}

/// Bytes that one instruction looks at; what is true of one sets all its bits in the answer.
using Block = uint8_t __attribute__((vector_size(16)));

Block loaded(const char* from) {
  Block block;
  std::memcpy(&block, from, sizeof block);
  return block;
}

bool any(Block bytes) {
  const auto halves = std::bit_cast<std::array<uint64_t, 2>>(bytes);
  return (halves[0] | halves[1]) != 0;
}

Block within(Block bytes, uint8_t first, uint8_t last) {
  return bytes - first <= static_cast<uint8_t>(last - first);
}

/// A `pchar` of RFC 3986, "/", or "%", which begins a triplet.
Block mayStandInPath(Block bytes) {
  return within(bytes, '$', ';') | within(bytes, '@', 'Z') | within(bytes, 'a', 'z') | (bytes == '!') |
         (bytes == '=') | (bytes == '_') | (bytes == '~');
}

/// The second and third bytes of triplets other than that of NUL.
Block endTriplet(Block second, Block third) {
  const auto isHex = [](Block bytes) { return within(bytes, '0', '9') | within(bytes | 0x20, 'a', 'f'); };
  return isHex(second) & isHex(third) & ~((second == '0') & (third == '0'));
}

/// Whether the text holds only unreserved characters, sub-delimiters, triplets and those in `extra`.
bool holdsOnly(std::string_view text, std::string_view extra) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isTriplet(text, i)) {
      i += 2;
    } else if (!isOneOf(text[i], kUnreserved) && !isOneOf(text[i], kSubDelimiters) &&
               !isOneOf(text[i], extra)) {
      return false;
    }
  }
  return true;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isLetter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
    return isLetter(c) || isDigit(c) || isOneOf(c, "+-.");
  });
}

struct Authority {
  std::string_view userInformation, host, port;
};

Authority splitAuthority(std::string_view text) {
  Authority parts;
  if (const auto at = text.rfind('@'); at != text.npos) {
    parts.userInformation = text.substr(0, at);
    text.remove_prefix(at + 1);
  }
  const auto colon = text.rfind(':');
  const auto bracket = text.rfind(']');
  if (colon != text.npos && (bracket == text.npos || colon > bracket)) {
    parts.port = text.substr(colon + 1);
    text = text.substr(0, colon);
  }
  parts.host = text;
  return parts;
}

/// What may stand between the brackets of a host: an IPv6 address, or "v", a hexadecimal version, "." and
/// text.
bool isIPLiteral(std::string_view text) {
  if (!holdsOnly(text, ":") || isOneOf('%', text)) return false;
  if (!text.empty() && lowered(text.front()) == 'v') {
    const auto dot = text.find('.');
    const std::string_view version = text.substr(1, dot - 1);
    return dot != text.npos && dot > 1 && dot + 1 < text.size() &&
           std::all_of(version.begin(), version.end(), [](char c) { return hexValue(c) >= 0; });
  }
  in6_addr address;
  return ::inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

bool isAuthority(std::string_view text) {
  const Authority parts = splitAuthority(text);
  if (!holdsOnly(parts.userInformation, ":")) return false;
  if (!std::all_of(parts.port.begin(), parts.port.end(), isDigit)) return false;
  if (parts.host.starts_with('[')) {
    return parts.host.ends_with(']') && isIPLiteral(parts.host.substr(1, parts.host.size() - 2));
  }
  return holdsOnly(parts.host, "");
}

/// RFC 3986, section 5.2.4.
std::string withoutDotSegments(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    if (path.starts_with("../")) {
      path.remove_prefix(3);
    } else if (path.starts_with("./")) {
      path.remove_prefix(2);
    } else if (path.starts_with("/./")) {
      path.remove_prefix(2);
    } else if (path == "/.") {
      path = "/";
    } else if (path.starts_with("/../") || path == "/..") {
      path = path.size() == 3 ? std::string_view("/") : path.substr(3);
      const auto slash = result.rfind('/');
      result.erase(slash == result.npos ? 0 : slash);
    } else if (path == "." || path == "..") {
      path = {};
    } else {
      const auto next = path.find('/', path.front() == '/' ? 1 : 0);
      result += path.substr(0, next);
      path.remove_prefix(next == path.npos ? path.size() : next);
    }
  }
  return result;
}

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = lowered(c);
  return result;
}

}  // namespace

std::string percentEncoded(std::string_view bytes, std::string_view kept) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string result;
  result.reserve(bytes.size());
  for (char c : bytes) {
    if (c != '\0' && (isOneOf(c, kUnreserved) || isOneOf(c, kept))) {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return result;
}

std::string percentDecoded(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isTriplet(text, i)) {
      result += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      result += text[i];
    }
  }
  return result;
}

URL::Parts URL::split(std::string_view text) {
  Parts parts;
  if (const auto hash = text.find('#'); hash != text.npos) {
    parts.hasFragment = true;
    parts.fragment = text.substr(hash + 1);
    text = text.substr(0, hash);
  }
  if (const auto mark = text.find('?'); mark != text.npos) {
    parts.hasQuery = true;
    parts.query = text.substr(mark + 1);
    text = text.substr(0, mark);
  }
  const auto colon = text.find(':');
  if (colon != text.npos && colon < text.find('/')) {
    parts.scheme = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  if (text.starts_with("//")) {
    parts.hasAuthority = true;
    const auto end = text.find('/', 2);
    parts.authority = text.substr(2, end == text.npos ? end : end - 2);
    text.remove_prefix(end == text.npos ? text.size() : end);
  }
  parts.path = text;
  return parts;
}

std::string URL::join(const Parts& parts) {
  std::string text;
  if (!parts.scheme.empty()) text.append(parts.scheme).append(":");
  if (parts.hasAuthority) {
    text.append("//").append(parts.authority);
  } else if (parts.path.starts_with("//")) {
    text.append("/.");  // else the path would read as an authority
  } else if (parts.scheme.empty() && parts.path.find(':') < parts.path.find('/')) {
    text.append("./");  // else its first segment would read as a scheme
  }
  text.append(parts.path);
  if (parts.hasQuery) text.append("?").append(parts.query);
  if (parts.hasFragment) text.append("#").append(parts.fragment);
  return text;
}

std::optional<URL> URL::parse(std::string_view text) {
  return isWellFormed(text) ? std::optional(URL(text)) : std::nullopt;
}

bool URL::isPlainPath(std::string_view text) {
  Block odd{};
  // A triplet that begins in the block may end two bytes behind it.
  const auto look = [&](const char* bytes) {
    const Block block = loaded(bytes);
    odd |= ~mayStandInPath(block);
    const Block percent = block == '%';
    if (any(percent)) odd |= percent & ~endTriplet(loaded(bytes + 1), loaded(bytes + 2));
  };
  constexpr std::size_t kLook = sizeof(Block) + 2;
  std::size_t at = 0;
  for (; at + kLook <= text.size(); at += sizeof(Block)) look(text.data() + at);
  std::array<char, sizeof(Block) + kLook> rest;
  rest.fill('/');
  std::copy(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), rest.begin());
  look(rest.data());
  look(rest.data() + sizeof(Block));
  return !any(odd);
}

bool URL::isWellFormed(std::string_view text) {
  if (text.size() > kMaximumLength) return false;
  if (isPlainFileURL(text)) return true;
  const Parts parts = split(text);
  if (!parts.scheme.empty() && !isScheme(parts.scheme)) return false;
  if (text.starts_with(':')) return false;  // neither a scheme nor a relative path
  if (!isAuthority(parts.authority) || !holdsOnly(parts.path, "/:@") || !holdsOnly(parts.query, "/?:@") ||
      !holdsOnly(parts.fragment, "/?:@")) {
    return false;
  }
  // Resolved against a file URL, a reference without a scheme is one as well.
  const bool mayNameFile = parts.scheme.empty() || lowered(parts.scheme) == "file";
  return !mayNameFile || percentDecoded(parts.path).find('\0') == std::string::npos;
}

URL URL::file(std::string_view path, bool isDirectory) {
  path = path.substr(0, path.find('\0'));
  // Not the working directory: who lost a path must not come to delete that.
  if (path.empty()) return URL(kNoFile);
  std::string absolute;
  if (path.front() != '/') {
    char* directory = ::getcwd(nullptr, 0);
    // Nothing lies below a device: in a working directory that was removed no path names a file.
    absolute = directory ? directory : "/dev/null";
    std::free(directory);
    if (absolute != "/") absolute += '/';
  }
  absolute += path;
  if (isDirectory && !absolute.ends_with('/')) absolute += '/';
  return URL("file://" + percentEncoded(absolute, "/!$&'()*+,=:@"));
}

std::string URL::scheme() const { return lowered(split(text_.view()).scheme); }

std::optional<std::string> URL::authority() const {
  const Parts parts = split(text_.view());
  if (!parts.hasAuthority) return std::nullopt;
  return std::string(parts.authority);
}

std::string URL::host() const { return std::string(splitAuthority(split(text_.view()).authority).host); }

std::optional<unsigned> URL::port() const {
  const std::string_view digits = splitAuthority(split(text_.view()).authority).port;
  unsigned value = 0;
  for (char c : digits) {
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > 65535) return std::nullopt;
  }
  if (digits.empty()) return std::nullopt;
  return value;
}

std::string URL::path() const {
  std::string result = percentDecoded(split(text_.view()).path);
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

std::optional<std::string> URL::query() const {
  const Parts parts = split(text_.view());
  if (!parts.hasQuery) return std::nullopt;
  return std::string(parts.query);
}

std::optional<std::string> URL::fragment() const {
  const Parts parts = split(text_.view());
  if (!parts.hasFragment) return std::nullopt;
  return std::string(parts.fragment);
}

bool URL::isFileURL() const {
  const Parts parts = split(text_.view());
  return lowered(parts.scheme) == "file" &&
         (parts.authority.empty() || lowered(parts.authority) == "localhost") && parts.path.starts_with('/');
}

bool URL::hasDirectoryPath() const { return split(text_.view()).path.ends_with('/'); }

std::string URL::lastPathComponent() const {
  const std::string whole = path();
  if (whole == "/") return whole;
  const auto slash = whole.rfind('/');
  return slash == whole.npos ? whole : whole.substr(slash + 1);
}

URL URL::appending(std::string_view component, bool isDirectory) const {
  Parts parts = split(text_.view());
  std::string path(parts.path);
  if (!path.ends_with('/') && (parts.hasAuthority || !path.empty())) path += '/';
  path += percentEncoded(component.substr(0, component.find('\0')), "!$&'()*+,=:@");
  if (isDirectory && !path.ends_with('/')) path += '/';
  parts.path = path;
  parts.hasQuery = parts.hasFragment = false;
  return URL(join(parts));
}

URL URL::resolve(const URL& reference) const {
  const Parts base = split(text_.view());
  Parts target = split(reference.text_.view());
  std::string path;
  if (!target.scheme.empty() || target.hasAuthority) {
    path = withoutDotSegments(target.path);
    if (target.scheme.empty()) target.scheme = base.scheme;
  } else {
    target.scheme = base.scheme;
    target.hasAuthority = base.hasAuthority;
    target.authority = base.authority;
    if (target.path.empty()) {
      path = base.path;
      if (!target.hasQuery) {
        target.hasQuery = base.hasQuery;
        target.query = base.query;
      }
    } else if (target.path.starts_with('/')) {
      path = withoutDotSegments(target.path);
    } else {
      std::string merged;
      if (base.hasAuthority && base.path.empty()) {
        merged = "/";
      } else {
        merged = base.path.substr(0, base.path.rfind('/') + 1);
      }
      path = withoutDotSegments(merged + std::string(target.path));
    }
  }
  target.path = path;
  return URL(join(target));
}

}  // namespace larkspan::platform
