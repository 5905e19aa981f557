#include "larkspan/platform/base/Format.h"

#include <algorithm>
#include <cstdio>

namespace larkspan::platform {

namespace {

struct Conversion {
  std::string flags;
  int width = -1;
  int precision = -1;
  std::size_t position = 0;  // 1-based; 0: the next argument
  char type = 0;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int takeNumber(std::string_view text, std::size_t& at) {
  int value = 0;
  for (; at < text.size() && isDigit(text[at]); ++at) value = std::min(255, value * 10 + (text[at] - '0'));
  return value;
}

/// Reads what follows a '%'; `at` ends behind it. The type is 0 when the text ends first.
Conversion takeConversion(std::string_view text, std::size_t& at) {
  Conversion result;
  std::size_t digits = at;
  const int number = takeNumber(text, digits);
  if (digits > at && digits < text.size() && text[digits] == '$') {
    result.position = static_cast<std::size_t>(number);
    at = digits + 1;
  }
  constexpr std::string_view kFlags = "-+ #0'";
  while (at < text.size() && kFlags.find(text[at]) != kFlags.npos) {
    if (text[at] != '\'') result.flags += text[at];
    ++at;
  }
  if (at < text.size() && isDigit(text[at])) result.width = takeNumber(text, at);
  if (at < text.size() && text[at] == '.') result.precision = takeNumber(text, ++at);
  while (at < text.size() && std::string_view("hlqLjzt").find(text[at]) != std::string_view::npos) ++at;
  if (at < text.size()) result.type = text[at++];
  return result;
}

std::string directive(const Conversion& conversion, std::string_view ending) {
  std::string text = "%" + conversion.flags;
  if (conversion.width >= 0) text += std::to_string(conversion.width);
  if (conversion.precision >= 0) text += "." + std::to_string(conversion.precision);
  return text.append(ending);
}

template <typename T>
std::string printed(const std::string& directive, T value) {
  char buffer[640];  // the longest double has 309 digits before its point, and precision is at most 255
  const int length = std::snprintf(buffer, sizeof buffer, directive.c_str(), value);
  return std::string(buffer, static_cast<std::size_t>(std::clamp(length, 0, int{sizeof buffer} - 1)));
}

std::string padded(std::string text, const Conversion& conversion) {
  const auto width = static_cast<std::size_t>(std::max(0, conversion.width));
  if (text.size() < width) {
    const bool left = conversion.flags.find('-') != std::string::npos;
    text.insert(left ? text.size() : 0, width - text.size(), ' ');
  }
  return text;
}

}  // namespace

FormatArgument& FormatArgument::operator=(const FormatArgument& other) {
  kind_ = other.kind_;
  bits_ = other.bits_;
  owned_ = other.owned_;
  text_ = other.owned_.empty() ? other.text_ : std::string_view(owned_);
  return *this;
}

std::string FormatArgument::asText() const {
  switch (kind_) {
    case Kind::boolean:
      return bits_ ? "true" : "false";
    case Kind::signedInteger:
      return std::to_string(static_cast<int64_t>(bits_));
    case Kind::unsignedInteger:
      return std::to_string(bits_);
    case Kind::real:
      return Value(real_).description();
    case Kind::pointer:
      return printed("%p", reinterpret_cast<const void*>(static_cast<uintptr_t>(bits_)));
    case Kind::text:
      return std::string(text_);
  }
  return {};
}

std::string formatArguments(std::string_view text, const FormatArgument* arguments, std::size_t count) {
  using Kind = FormatArgument::Kind;
  std::string result;
  std::size_t next = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t percent = std::min(text.find('%', at), text.size());
    result.append(text.substr(at, percent - at));
    at = percent;
    if (at == text.size()) break;
    const Conversion conversion = takeConversion(text, ++at);
    constexpr std::string_view kTypes = "@sdiuxXocpfFeEgGaA";
    if (conversion.type == '%') {
      result += '%';
      continue;
    }
    if (conversion.type == 0 || kTypes.find(conversion.type) == kTypes.npos) {
      result.append(text.substr(percent, at - percent));
      continue;
    }
    const std::size_t index = conversion.position > 0 ? conversion.position - 1 : next++;
    if (index >= count) {
      result += "(null)";
      continue;
    }
    const FormatArgument& argument = arguments[index];
    const bool whole = argument.kind_ == Kind::boolean || argument.kind_ == Kind::signedInteger ||
                       argument.kind_ == Kind::unsignedInteger;
    switch (conversion.type) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        if (whole) {
          const bool isSigned =
              argument.kind_ == Kind::signedInteger && (conversion.type == 'd' || conversion.type == 'i');
          const char letter =
              isSigned || (conversion.type != 'd' && conversion.type != 'i') ? conversion.type : 'u';
          const std::string spec = directive(conversion, std::string("ll") + letter);
          result += isSigned ? printed(spec, static_cast<long long>(argument.bits_))
                             : printed(spec, static_cast<unsigned long long>(argument.bits_));
          continue;
        }
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        if (whole || argument.kind_ == Kind::real) {
          const double number = argument.kind_ == Kind::real ? argument.real_
                                : argument.kind_ == Kind::signedInteger
                                    ? static_cast<double>(static_cast<int64_t>(argument.bits_))
                                    : static_cast<double>(argument.bits_);
          result += printed(directive(conversion, {&conversion.type, 1}), number);
          continue;
        }
        break;
      case 'c':
        if (whole) {
          result += padded(std::string(1, static_cast<char>(argument.bits_)), conversion);
          continue;
        }
        break;
      default:
        break;
    }
    result += padded(argument.asText(), conversion);
  }
  return result;
}

}  // namespace larkspan::platform
