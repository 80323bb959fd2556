// TextTree: lines under lines, drawn with branches.
//
//     top
//     ├─ first
//     │  └─ below first
//     └─ last
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

struct TextTree {
  enum class Tone { plain, title, fault };

  explicit TextTree(std::string line, Tone toneOfLine = Tone::plain) : text(std::move(line)), tone(toneOfLine) {}

  std::string text;
  Tone tone;
  std::vector<TextTree> children;

  // A line a node, folded where the terminal ends. Calls itself once a level: whoever builds a tree bounds its depth.
  void write(std::ostream& out, bool isColoured) const { write(out, isColoured, "", ""); }

 private:
  void write(std::ostream& out, bool isColoured, const std::string& before, const std::string& beforeChildren) const;
};

}  // namespace Agent
