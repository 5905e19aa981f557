#include "extensions/trash/Texts.h"

#include "larkspan/platform/text/StringTable.h"

namespace larkspan::trash {

std::string text(const char* key) {
  static constexpr platform::StringTableEntry kEntries[] = {
      {"CATEGORY_OLD", "In the trash for more than 30 days"},
      {"CATEGORY_RECENT", "Deleted lately"},
      {"HEADER",
       "What is deleted from the trash is gone for good. To have something back, restore it with the file "
       "manager."},
      {"SUMMARY_TITLE", "Trash"},
      {"SUMMARY_MESSAGE_1", "One item takes %1$@."},
      {"SUMMARY_MESSAGE", "%1$lld items take %2$@."},
      {"EMPTY", "Empty Trash"},
      {"EMPTY_TITLE", "Empty the trash?"},
      {"EMPTY_MESSAGE_1",
       "The one item in it, “%1$@”, is deleted for good. This frees %2$@ and cannot be undone."},
      {"EMPTY_MESSAGE", "The %1$lld items in it are deleted for good. This frees %2$@ and cannot be undone."},
      {"DELETE_TITLE_1", "Delete “%1$@” for good?"},
      {"DELETE_TITLE", "Delete %1$lld items for good?"},
      {"DELETE_MESSAGE", "This frees %1$@ and cannot be undone."},
      {"DELETE", "Delete"},
      {"CANCEL", "Cancel"},
      {"TIP_TITLE", "Delete what has been in the trash for more than 30 days"},
      {"TIP_SECONDARY_1", "One item, %1$@"},
      {"TIP_SECONDARY", "%1$lld items, %2$@"},
      {"TIP_INFO", "Nobody has missed it for a month."},
      {"FAILED", "%1$lld of %2$lld items could not be deleted: %3$@"},
      {"FAILED_ITEM", "“%1$@”: %2$@"},
      {"NOT_IN_TRASH", "%1$@ is not in the trash"},
      {"CHANGED", "“%1$@” is not what was listed"},
      {"NO_REFERENCE", "It does not say what was listed"},
  };
  static const auto* const table = new platform::StringTable(kEntries, "larkspan-trash");
  return table->text(key);
}

}  // namespace larkspan::trash
