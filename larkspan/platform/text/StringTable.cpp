#include "larkspan/platform/text/StringTable.h"

#include <libintl.h>

namespace larkspan::platform {

StringTable::StringTable(std::span<const StringTableEntry> entries, const char* domain, const char* folder)
    : entries_(entries), domain_(domain) {
  if (folder) bindtextdomain(domain, folder);
  bind_textdomain_codeset(domain, "UTF-8");
}

std::string StringTable::text(std::string_view key) const {
  for (const StringTableEntry& entry : entries_) {
    if (key != entry.key) continue;
    constexpr char kEndOfContext = '\004';
    const std::string message = std::string(key) + kEndOfContext + entry.english;
    const char* translated = dgettext(domain_, message.c_str());
    return translated == message.c_str() ? entry.english : translated;
  }
  return std::string(key);
}

}  // namespace larkspan::platform
