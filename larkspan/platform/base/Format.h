#pragma once

#include "larkspan/platform/base/Value.h"

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// One argument of `format`: remembers what it was made from, so that no conversion can misread it.
/// Borrows strings and objects for the time of the call.
class FormatArgument {
 public:
  template <std::integral T>
  FormatArgument(T number)
      : kind_(std::same_as<T, bool>     ? Kind::boolean
              : std::signed_integral<T> ? Kind::signedInteger
                                        : Kind::unsignedInteger),
        bits_(static_cast<uint64_t>(number)) {}
  FormatArgument(double number) : kind_(Kind::real), real_(number) {}
  FormatArgument(std::string_view text) : kind_(Kind::text), text_(text) {}
  FormatArgument(const std::string& text) : FormatArgument(std::string_view(text)) {}
  FormatArgument(const char* text)
      : FormatArgument(text ? std::string_view(text) : std::string_view("(null)")) {}
  FormatArgument(std::nullopt_t) : FormatArgument(std::string_view("(null)")) {}
  FormatArgument(const void* pointer) : kind_(Kind::pointer), bits_(reinterpret_cast<uintptr_t>(pointer)) {}
  /// Whatever can describe itself.
  template <typename T>
  requires requires(const T& object) {
    { object.description() } -> std::convertible_to<std::string>;
  }
  FormatArgument(const T& object) : kind_(Kind::text), owned_(object.description()) { text_ = owned_; }
  /// An absent object prints as "(null)".
  template <typename T>
  FormatArgument(const std::shared_ptr<T>& object)
      : kind_(Kind::text), owned_(object ? object->description() : std::string("(null)")), text_(owned_) {}
  template <typename T>
  FormatArgument(const std::optional<T>& object)
      : FormatArgument(object ? FormatArgument(*object) : std::nullopt) {}
  template <typename T>
  requires requires(const T& object) { object.description(); }
  FormatArgument(const std::vector<T>& objects) : kind_(Kind::text) {
    for (const T& object : objects) owned_ += (owned_.empty() ? "(" : ", ") + object.description();
    owned_ += owned_.empty() ? "()" : ")";
    text_ = owned_;
  }
  FormatArgument(const FormatArgument& other) { *this = other; }
  FormatArgument& operator=(const FormatArgument& other);

 private:
  friend std::string formatArguments(std::string_view format, const FormatArgument* arguments,
                                     std::size_t count);
  enum class Kind : uint8_t { boolean, signedInteger, unsignedInteger, real, text, pointer };
  std::string asText() const;

  Kind kind_ = Kind::text;
  union {
    uint64_t bits_ = 0;
    double real_;
  };
  std::string owned_;
  std::string_view text_;
};

std::string formatArguments(std::string_view format, const FormatArgument* arguments, std::size_t count);

/// The format with its arguments filled in: the conversions of printf(3) with flags, width, precision, length
/// and positions ("%2$ld"), and "%@" for objects, which print their description. The length is ignored, a
/// conversion that does not fit its argument prints the argument as "%@" does, a missing argument prints as
/// "(null)", and an unknown conversion prints itself: a wrong text in a translation misprints but never
/// misreads. Precision applies to numbers; widths count bytes.
/// Limits: width and precision above 255 are cut to 255.
template <typename... Arguments>
std::string format(std::string_view text, const Arguments&... arguments) {
  if constexpr (sizeof...(Arguments) == 0) {
    return formatArguments(text, nullptr, 0);
  } else {
    const FormatArgument list[] = {FormatArgument(arguments)...};
    return formatArguments(text, list, sizeof...(Arguments));
  }
}

}  // namespace larkspan::platform
