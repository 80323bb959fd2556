#include "agent/TextTree.h"

#include <algorithm>

#include "agent/Terminal.h"

namespace Agent {
namespace {

constexpr std::size_t columnsMin = 20;   // that a line's text has, however deep it stands
constexpr const char* belowText = "│ ";  // before what goes on below the line and above its children

}  // namespace

void TextTree::write(std::ostream& out, bool isColoured, const std::string& before,
                     const std::string& beforeChildren) const {
  const bool hasColour = isColoured && tone != Tone::plain;
  const char* const colour = !hasColour ? "" : tone == Tone::title ? "\x1b[1m" : "\x1b[31m";
  const std::size_t columns = outputSize().columns;
  const std::size_t indent = widthOf(beforeChildren) + widthOf(belowText);
  std::string start = before;
  for (const std::string& line : folded(text, std::max(columns - std::min(columns, indent), columnsMin))) {
    out << start << colour << line << (hasColour ? "\x1b[0m" : "") << '\n';
    start = beforeChildren + (children.empty() ? "  " : belowText);
  }
  for (std::size_t i = 0; i < children.size(); ++i) {
    const bool isLast = i + 1 == children.size();
    children[i].write(out, isColoured, beforeChildren + (isLast ? "└─ " : "├─ "),
                      beforeChildren + (isLast ? "   " : "│  "));
  }
}

}  // namespace Agent
