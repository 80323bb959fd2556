#include "agent/Columns.h"

#include <algorithm>

#include "agent/Terminal.h"

namespace Agent {
namespace {

bool isNumber(const std::string& cell) {
  return !cell.empty() && cell.find_first_not_of("0123456789") == std::string::npos;
}

constexpr std::size_t lastCellMin = 20;  // characters; narrower a list of vias is hard to read

}  // namespace

void Columns::write(std::ostream& out, const std::string& indent, std::size_t width) const {
  std::vector<std::size_t> widths;
  for (const auto& cells : rows_) {
    widths.resize(std::max(widths.size(), cells.size()));
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], widthOf(cells[i]));
    }
  }
  for (const auto& cells : rows_) {
    std::string line = indent;
    for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
      const std::string blanks(widths[i] - widthOf(cells[i]), ' ');
      line += (isNumber(cells[i]) ? blanks + cells[i] : cells[i] + blanks) + "  ";
    }
    const std::size_t before = widthOf(line);
    const std::string& last = cells.back();
    const std::size_t room = width - std::min(before, width);
    line += std::string(isNumber(last) ? widths[cells.size() - 1] - widthOf(last) : 0, ' ');
    for (const std::string& part : folded(last, std::max(room, lastCellMin))) {
      line += part;
      out << line.erase(line.find_last_not_of(' ') + 1) << '\n';
      line.assign(before, ' ');
    }
  }
}

}  // namespace Agent
