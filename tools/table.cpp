#include "table.hpp"

#include <algorithm>

namespace agent::spf::endpointregistry::tool {

Table::Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }

void Table::addRow(std::vector<std::string> cells) {
  cells.resize(rows_.front().size());
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out, bool legend) const {
  const std::size_t columns = rows_.front().size();
  const auto shown = rows_.begin() + (legend ? 0 : 1);
  std::vector<std::size_t> widths(columns, 0);
  for (auto row = shown; row != rows_.end(); ++row) {
    for (std::size_t c = 0; c < columns; ++c) widths[c] = std::max(widths[c], displayWidth((*row)[c]));
  }
  for (auto it = shown; it != rows_.end(); ++it) {
    const auto& row = *it;
    std::string line;
    for (std::size_t c = 0; c < columns; ++c) {
      line += row[c];
      if (c + 1 < columns) line.append(widths[c] - displayWidth(row[c]) + 2, ' ');
    }
    // Trailing blanks of empty last cells help nobody.
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
}

std::size_t displayWidth(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0u) != 0x80u; }));
}

}  // namespace agent::spf::endpointregistry::tool
