#include "cli/Table.h"

#include "cli/Text.h"

#include <algorithm>

namespace larkspan::cli {

namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowestName = 12;

}  // namespace

void Table::add(const std::vector<std::string_view>& cells) {
  auto& row = rows_.emplace_back();
  for (const std::string_view cell : cells) row.push_back(printable(cell));
}

std::string Table::text(std::size_t width) const {
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t widest = displayWidth(columns_[i].heading);
    for (const auto& row : rows_) widest = std::max(widest, displayWidth(row[i]));
    widths.push_back(widest);
  }
  std::size_t total = kGap * (widths.size() - 1);
  for (const std::size_t one : widths) total += one;
  if (width != 0 && total > width) {
    const std::size_t others = total - widths[0];
    widths[0] = std::max(std::min(widths[0], kNarrowestName), width > others ? width - others : 0);
  }

  std::string result;
  const auto addLine = [&](auto&& cellOf) {
    std::string line;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      const std::string cell = cutToWidth(cellOf(i), widths[i]);
      const std::string padding(widths[i] - displayWidth(cell), ' ');
      if (i != 0) line.append(kGap, ' ');
      line += columns_[i].alignment == Column::Alignment::right ? padding + cell : cell + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += cutToWidth(line, width) + "\n";
  };
  addLine([&](std::size_t i) -> const std::string& { return columns_[i].heading; });
  for (const auto& row : rows_) addLine([&](std::size_t i) -> const std::string& { return row[i]; });
  return result;
}

}  // namespace larkspan::cli
