#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::cli {

/// Rows of cells, laid out in columns with two spaces between them.
class Table {
 public:
  struct Column {
    std::string heading;
    enum class Alignment { left, right } alignment = Alignment::left;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// One cell for each column; made printable here.
  void add(const std::vector<std::string_view>& cells);
  /// Headings and rows. Where `width` is not 0 the first column gives way until all fit, and lines are cut at
  /// last.
  std::string text(std::size_t width) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace larkspan::cli
