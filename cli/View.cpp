#include "cli/View.h"

#include "cli/Sum.h"
#include "cli/Table.h"
#include "cli/Text.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/platform/text/SizeText.h"

#include <algorithm>
#include <ctime>

namespace larkspan::cli {

using platform::Value;
using Kind = Value::Kind;
using Alignment = Table::Column::Alignment;

namespace {

constexpr const char* kUnknown = "–";

/// The size, or "–" where it is unknown.
std::string knownSizeText(int64_t bytes) { return bytes < 0 ? kUnknown : platform::sizeText(bytes); }
constexpr std::size_t kLargestShown = 3;

constexpr struct {
  Key key;
  const char* label;
} kInfoLabels[] = {
    {kNameKey, "Name"},
    {kSizeKey, "Size"},
    {kAppSizeKey, "Size of the application"},
    {kDataSizeKey, "Size of the data"},
    {kDeletableSizeKey, "May be deleted"},
    {kCategoriesKey, "Categories"},
    {kCategoryNamesKey, "Names of the categories"},
    {kAppURLKey, "Application"},
    {kManagedPathsKey, "Paths"},
    {kHeaderMessageKey, "Message"},
    {kHeaderButtonTitleKey, "Button"},
    {kRevealButtonTitleKey, "Reveal button"},
    {kHiddenKey, "Hidden"},
    {kShowsSummaryKey, "Has a summary"},
    {kHideItemPathsKey, "Hides paths"},
    {kHideRevealButtonKey, "Hides the reveal button"},
};

constexpr Key kByteKeys[] = {kSizeKey, kAppSizeKey, kDataSizeKey, kDeletableSizeKey};

/// Not printable yet.
std::string valueText(std::string_view key, const Value& value) {
  const auto join = [](const auto& members, auto&& textOf) {
    std::string text;
    for (const auto& member : members) text += (text.empty() ? "" : ", ") + textOf(member);
    return text;
  };
  switch (value.kind()) {
    case Kind::boolean:
      return value.boolValue() ? "yes" : "no";
    case Kind::integer:
      if (std::find(std::begin(kByteKeys), std::end(kByteKeys), key) != std::end(kByteKeys)) {
        return knownSizeText(value.integerValue());
      }
      break;
    case Kind::data:
      return platform::sizeText(static_cast<int64_t>(value.data()->view().size())) + " of data";
    case Kind::array:
      return join(value.array(), [](const Value& member) { return valueText({}, member); });
    case Kind::dictionary:
      return join(value.dictionary(), [](const platform::Dictionary::Entry& entry) {
        return std::string(entry.key()) + " = " + valueText(entry.key(), entry.value);
      });
    default:
      break;
  }
  return value.description();
}

std::string line(std::string_view label, std::string_view text) {
  return printable(label) + ": " + printable(text) + "\n";
}

std::string dateText(const std::optional<platform::Date>& date) {
  char text[32];
  tm fields;
  const time_t seconds = date ? date->seconds : 0;
  if (!date || !localtime_r(&seconds, &fields) || fields.tm_year > 8099 || fields.tm_year < -1900)
    return kUnknown;
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &fields);
  return text;
}

bool isSummary(const MessageItem& item) { return item.kind() == kSummaryKind; }

/// The largest first, without the summary, which is no resource; equal ones stay as they came.
Items sortedBySize(Items items) {
  std::erase_if(items, isSummary);
  std::stable_sort(items.begin(), items.end(),
                   [](const MessageItem& a, const MessageItem& b) { return a.lks_size() > b.lks_size(); });
  return items;
}

Sum sumOf(const Items& items) {
  Sum sum;
  for (const MessageItem& item : items) sum.add(item.lks_size());
  return sum;
}

std::string countText(std::size_t count, const char* one) {
  return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

}  // namespace

std::string executableOf(const platform::Manifest& manifest) {
  const std::string& program = manifest.exec[0];
  char* const resolved = program.find('/') == program.npos ? nullptr : ::realpath(program.c_str(), nullptr);
  std::string result = resolved ? resolved : program;
  std::free(resolved);
  return result;
}

std::string extensionsText(const std::vector<Handle>& extensions, std::size_t width) {
  Table table({{"NAME"}, {"IDENTIFIER"}, {"PROGRAM"}, {"MANIFEST"}});
  for (const Handle& handle : extensions) {
    const auto& manifest = handle->underlyingExtension()->manifest();
    table.add({manifest.name, manifest.identifier, executableOf(manifest), manifest.path});
  }
  return table.text(width);
}

std::string infoText(const MessageItem& item) {
  std::string text;
  for (const auto& [key, label] : kInfoLabels) {
    const std::string value = valueText(key, item.userInfo().get(key));
    if (item.userInfo().contains(key) && !value.empty()) text += line(label, value);
  }
  for (const auto& entry : item.userInfo()) {
    const bool isLabelled = std::any_of(std::begin(kInfoLabels), std::end(kInfoLabels),
                                        [&](const auto& known) { return known.key == entry.key(); });
    if (!isLabelled && entry.key() != kItemKindKey)
      text += line(entry.key(), valueText(entry.key(), entry.value));
  }
  return text;
}

std::string resourcesText(const Items& items, std::size_t width) {
  std::string text;
  for (const LKSSummaryResource item : items) {
    if (isSummary(item)) text += printable(item.lks_summaryMessage().value_or(kUnknown)) + "\n";
  }
  Table table({{"NAME"}, {"SIZE", Alignment::right}, {"CATEGORY"}, {"MODIFIED"}});
  const Items sorted = sortedBySize(items);
  for (const LKSResource item : sorted) {
    table.add({item.lks_name().value_or(kUnknown), knownSizeText(item.lks_size()),
               item.lks_category().value_or(""), dateText(item.lks_dateModified())});
  }
  const Sum sum = sumOf(sorted);
  return text + table.text(width) + "Total: " + countText(sum.count, "item") + ", " +
         platform::sizeText(sum.bytes) + "\n";
}

std::string tipsText(const Items& items) {
  std::string text;
  for (const LKSTipMessage tip : items) {
    if (!text.empty()) text += "\n";
    text += printable(tip.lks_name().value_or(kUnknown)) + "\n";
    if (const auto more = tip.lks_secondaryTitle()) text += "  " + printable(*more) + "\n";
    if (const auto info = tip.lks_infoText()) {
      // The one text that may well have lines of its own.
      for (std::string_view rest = *info; !rest.empty();) {
        const std::string_view one = rest.substr(0, rest.find('\n'));
        text += "  " + printable(one) + "\n";
        rest.remove_prefix(std::min(one.size() + 1, rest.size()));
      }
    }
    if (const auto button = tip.lks_actionButtonTitle()) text += "  [" + printable(*button) + "]\n";
  }
  return text.empty() ? "No tips.\n" : text;
}

std::string itemsText(const Items& items) {
  std::string text;
  for (const MessageItem& item : items) {
    if (!text.empty()) text += "\n";
    for (const auto& entry : item.userInfo()) text += line(entry.key(), valueText({}, entry.value));
  }
  return text;
}

std::string overviewText(const Overview& overview, std::size_t width) {
  const auto& manifest = overview.extension->underlyingExtension()->manifest();
  std::string text = printable(manifest.name) + " (" + manifest.identifier + ")";
  if (overview.info && !overview.info->empty())
    text += ": " + knownSizeText(overview.info->front().lks_size());
  const Items sorted = sortedBySize(overview.resources.value_or(Items()));
  if (overview.resources) {
    Sum deletable;
    for (const LKSResource item : sorted) {
      if (item.isDeletable()) deletable.add(item.lks_deletableSize());
    }
    text += ", " + countText(sorted.size(), "item");
    if (deletable.count != 0) text += ", " + platform::sizeText(deletable.bytes) + " may go";
  }
  if (overview.tips && !overview.tips->empty()) text += ", " + countText(overview.tips->size(), "tip");
  text += "\n";
  if (overview.resources) {
    const std::size_t shown = std::min(sorted.size(), kLargestShown);
    for (std::size_t i = 0; i < shown; ++i) {
      const std::string size = knownSizeText(sorted[i].lks_size());
      const std::string padding(12 - std::min<std::size_t>(displayWidth(size), 12), ' ');
      const std::string row = padding + size + "  " + printable(sorted[i].lks_name().value_or(kUnknown));
      text += cutToWidth(row, width) + "\n";
    }
    if (sorted.size() > shown)
      text += std::string(14, ' ') + "… and " + std::to_string(sorted.size() - shown) + " more\n";
  }
  if (overview.error) text += "  failed: " + printable(*overview.error) + "\n";
  return text;
}

}  // namespace larkspan::cli
