#include "agent/TextTree.h"

namespace Agent {

void TextTree::write(std::ostream& out, bool isColoured, const std::string& before,
                     const std::string& beforeChildren) const {
  const bool hasColour = isColoured && tone != Tone::plain;
  out << before << (hasColour ? (tone == Tone::title ? "\x1b[1m" : "\x1b[31m") : "") << text
      << (hasColour ? "\x1b[0m" : "") << '\n';
  for (std::size_t i = 0; i < children.size(); ++i) {
    const bool isLast = i + 1 == children.size();
    children[i].write(out, isColoured, beforeChildren + (isLast ? "└─ " : "├─ "),
                      beforeChildren + (isLast ? "   " : "│  "));
  }
}

}  // namespace Agent
