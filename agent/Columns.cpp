#include "agent/Columns.h"

#include <algorithm>

namespace Agent {
namespace {

bool isNumber(const std::string& cell) {
  return !cell.empty() && cell.find_first_not_of("0123456789") == std::string::npos;
}

// How many characters a terminal shows: bytes that do not continue a UTF-8 sequence.
std::size_t widthOf(const std::string& cell) {
  return static_cast<std::size_t>(
      std::count_if(cell.begin(), cell.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace

void Columns::write(std::ostream& out, const std::string& indent) const {
  std::vector<std::size_t> widths;
  for (const auto& cells : rows_) {
    widths.resize(std::max(widths.size(), cells.size()));
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], widthOf(cells[i]));
    }
  }
  for (const auto& cells : rows_) {
    std::string line = indent;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const std::string blanks(widths[i] - widthOf(cells[i]), ' ');
      line += i == 0 ? "" : "  ";
      line += isNumber(cells[i]) ? blanks + cells[i] : cells[i] + blanks;
    }
    out << line.erase(line.find_last_not_of(' ') + 1) << '\n';
  }
}

}  // namespace Agent
