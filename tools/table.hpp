// A plain text table for people: a header row, then one row per item, the
// columns padded with spaces to their widest cell, two spaces between columns.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace agent::spf::endpointregistry::tool {

class Table {
 public:
  explicit Table(std::vector<std::string> header);

  // Cells must already be display text (see text_escape.hpp); missing cells
  // are empty, extra cells are dropped.
  void addRow(std::vector<std::string> cells);

  // Writes the header (unless `legend` is false) and the rows; the last
  // column is not padded.
  void print(std::ostream& out, bool legend = true) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// The number of characters (UTF-8 code points) of a display text.
std::size_t displayWidth(const std::string& text);

}  // namespace agent::spf::endpointregistry::tool
