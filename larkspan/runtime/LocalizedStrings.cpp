#include "larkspan/runtime/LocalizedStrings.h"

#include "larkspan/platform/text/StringTable.h"

namespace larkspan {

namespace {

// Each text takes the arguments of its comment, in that order or by position.
constexpr platform::StringTableEntry kTexts[] = {
    {"DM_REMOVE_TITLE_1", "Delete “%1$@”?"},                                   // name
    {"DM_REMOVE_MESSAGE_1", "This frees %1$@. The item cannot be restored."},  // size
    {"DM_REMOVE_NOSIZE_1", "The item cannot be restored."},                    //
    {"DM_REMOVE_TITLE", "Delete %1$lu items?"},                                // count, first name
    {"DM_REMOVE_MESSAGE", "Deleting these %1$lu items frees %2$@. They cannot be restored."},  // count, size
    {"DM_REMOVE_NOSIZE", "These %1$lu items cannot be restored."},                             // count
    {"DM_REMOVE", "Delete"},
    {"DM_OK", "OK"},
    {"DM_CANCEL", "Cancel"},
    {"DM_OPEN_X", "Open %1$@"},  // application name
    {"DM_OPEN", "Open"},
};

}  // namespace

std::string LKSLocalizedStringFromFramework(std::string_view key) {
  static const auto* table = new platform::StringTable(kTexts, "larkspan");
  return table->text(key);
}

}  // namespace larkspan
