#include "programs/common/text_table.h"

#include <algorithm>
#include <utility>

#include "platform/text_escape.h"

namespace pallion {

size_t characterCount(std::string_view text) {
  // Every byte but the continuation bytes begins a character.
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
  }));
}

void TextTable::addRow(const std::vector<std::string>& cells) {
  std::vector<std::string> row;
  if (widths_.size() < cells.size()) widths_.resize(cells.size());
  for (size_t i = 0; i < cells.size(); ++i) {
    row.push_back(terminalText(cells[i]));
    widths_[i] = std::max(widths_[i], characterCount(row.back()));
  }
  while (!row.empty() && row.back().empty()) row.pop_back();
  rows_.push_back(std::move(row));
}

std::string TextTable::text() const {
  std::string out;
  for (const std::vector<std::string>& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) {
      out += row[i];
      if (i + 1 < row.size()) out.append(widths_[i] - characterCount(row[i]) + 2, ' ');
    }
    out += '\n';
  }
  return out;
}

}  // namespace pallion
