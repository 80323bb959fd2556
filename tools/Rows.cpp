#include "tools/Rows.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <limits>
#include <sstream>
#include <utility>

namespace Tools {
namespace {

constexpr std::size_t blockRows = 500;

// Characters in a line of the terminal; without one, any number.
std::size_t lineWidth() {
  winsize size{};
  return isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0
             ? size.ws_col
             : std::numeric_limits<std::size_t>::max();
}

}  // namespace

Rows::Rows(std::ostream& out, bool isJson, std::string member, Cells titles, std::optional<std::uint64_t> limit,
           const OrderedJson& head)
    : out_(out),
      isJson_(isJson),
      titles_(std::move(titles)),
      limit_(limit.value_or(std::numeric_limits<std::uint64_t>::max())) {
  if (isJson_) {
    out_ << '{';
    for (const auto& [key, value] : head.items()) {
      out_ << Agent::textOf(OrderedJson(key)) << ": " << Agent::textOf(value) << ", ";
    }
    out_ << Agent::textOf(OrderedJson(member)) << ": [";
  }
}

void Rows::write(const OrderedJson& json) { out_ << (count_++ == 0 ? "\n  " : ",\n  ") << Agent::textOf(json); }

void Rows::write(Cells cells) {
  if (count_++ == 0) {
    columns_.row(titles_);
  }
  columns_.row(std::move(cells));
  if (columns_.rows() >= blockRows) {
    flush();
  }
}

void Rows::flush() {
  std::ostringstream text;
  std::exchange(columns_, {}).write(text, "");
  const std::size_t width = lineWidth();
  std::istringstream lines(text.str());
  for (std::string line; std::getline(lines, line);) {
    out_ << (line.size() > width ? line.substr(0, width - 1) + "~" : line) << '\n';
  }
}

void Rows::end() {
  if (isJson_) {
    out_ << (count_ == 0 ? "]" : "\n]") << (isCut_ ? ", \"after\": " + Agent::textOf(OrderedJson(lastKey_)) : "")
         << "}\n";
    return;
  }
  flush();
  if (count_ == 0) {
    out_ << (isCut_ ? "" : "none\n");
  }
  if (isCut_) {
    out_ << "there are more: --after " << lastKey_ << '\n';
  }
}

}  // namespace Tools
