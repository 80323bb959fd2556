// Columns: rows of text, written so that their cells stand under each other. Cells that are numbers stand to the right.
#pragma once

#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace Agent {

class Columns {
 public:
  void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  std::size_t rows() const { return rows_.size(); }
  // Each row behind the indent, two blanks between its cells, none at its end. Where a row is longer than width its
  // last cell goes on below itself.
  void write(std::ostream& out, const std::string& indent,
             std::size_t width = std::numeric_limits<std::size_t>::max()) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Agent
