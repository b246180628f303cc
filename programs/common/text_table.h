#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace pallion {

// Rows of cells in aligned columns, two blanks apart; the last cell of a row is not padded. Cells
// may hold any bytes: they are made fit for a terminal.
class TextTable {
 public:
  void addRow(const std::vector<std::string>& cells);
  // One line a row.
  [[nodiscard]] std::string text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
  std::vector<size_t> widths_;
};

// Characters in a UTF-8 text.
size_t characterCount(std::string_view text);

}  // namespace pallion
