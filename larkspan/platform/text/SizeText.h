#pragma once

#include <cstdint>
#include <string>

namespace larkspan::platform {

/// The one text for a number of bytes, in decimal units as storage is sold and as file managers count.
/// Below 1000: "0 bytes", "1 byte", "999 bytes". Then KB without decimals, MB with one, GB, TB, PB and EB
/// with two; rounded half away from zero, zeros at the end left out ("1 GB", "1.5 GB"). What rounds up to
/// 1000 of a unit is 1 of the next (999,500 bytes is "1 MB"). A negative number has a minus sign. The decimal
/// point does not depend on the locale.
std::string sizeText(int64_t bytes);

}  // namespace larkspan::platform
