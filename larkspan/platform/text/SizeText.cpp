#include "larkspan/platform/text/SizeText.h"

namespace larkspan::platform {
namespace {

struct Unit {
  const char* name;
  uint64_t size;
  int decimals;
};

constexpr Unit kUnits[] = {
    {" KB", 1'000, 0},
    {" MB", 1'000'000, 1},
    {" GB", 1'000'000'000, 2},
    {" TB", 1'000'000'000'000, 2},
    {" PB", 1'000'000'000'000'000, 2},
    {" EB", 1'000'000'000'000'000'000, 2},
};

}  // namespace

std::string sizeText(int64_t bytes) {
  const std::string sign = bytes < 0 ? "-" : "";
  const uint64_t magnitude = bytes < 0 ? 0 - static_cast<uint64_t>(bytes) : static_cast<uint64_t>(bytes);
  if (magnitude < 1000) return sign + std::to_string(magnitude) + (magnitude == 1 ? " byte" : " bytes");

  for (const Unit& unit : kUnits) {
    const uint64_t scale = unit.decimals == 0 ? 1 : unit.decimals == 1 ? 10 : 100;
    const uint64_t step = unit.size / scale;
    const uint64_t steps = magnitude / step + (magnitude % step * 2 >= step ? 1 : 0);
    if (steps >= 1000 * scale && &unit != std::end(kUnits) - 1) continue;
    std::string text = sign + std::to_string(steps / scale);
    if (uint64_t fraction = steps % scale; fraction != 0) {
      text += '.';
      for (uint64_t place = scale / 10; fraction != 0; fraction %= place, place /= 10) {
        text += static_cast<char>('0' + fraction / place);
      }
    }
    return text + unit.name;
  }
  return {};
}

}  // namespace larkspan::platform
