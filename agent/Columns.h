// Columns: rows of text, written so that their cells stand under each other. Cells that are numbers stand to the right.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Agent {

class Columns {
 public:
  void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  std::size_t rows() const { return rows_.size(); }
  // Each row behind the indent, two blanks between its cells, none at its end.
  void write(std::ostream& out, const std::string& indent) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Agent
