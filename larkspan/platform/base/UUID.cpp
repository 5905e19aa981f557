#include "larkspan/platform/base/UUID.h"

#include <cstdio>
#include <cstdlib>

#include <sys/random.h>

namespace larkspan::platform {

UUID UUID::random() {
  UUID result;
  // getrandom(2) of at most 256 bytes is neither short nor interrupted once the kernel's pool is ready.
  if (getrandom(result.bytes.data(), result.bytes.size(), 0) != static_cast<ssize_t>(result.bytes.size()))
    std::abort();
  result.bytes[6] = static_cast<uint8_t>((result.bytes[6] & 0x0F) | 0x40);
  result.bytes[8] = static_cast<uint8_t>((result.bytes[8] & 0x3F) | 0x80);
  return result;
}

std::string UUID::description() const {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += pair;
  }
  return text;
}

}  // namespace larkspan::platform
