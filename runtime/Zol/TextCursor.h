// TextCursor: reads a value's text piece by piece and says which piece does not match.
#pragma once

#include <string>
#include <string_view>

#include "runtime/Zol/Exception.h"

namespace Zol {

class TextCursor {
 public:
  explicit TextCursor(std::string_view text) : rest_(text) {}

  std::string_view rest() const { return rest_; }
  bool atEnd() const { return rest_.empty(); }
  bool at(std::string_view literal) const { return rest_.starts_with(literal); }

  // Reads exactly this piece, or raises a parse exception that names it.
  void expect(std::string_view literal) {
    if (!at(literal)) {
      fail("'" + std::string(literal) + "'");
    }
    rest_.remove_prefix(literal.size());
  }
  // The text up to the next of these characters, or to the end.
  std::string_view upTo(std::string_view stops) {
    const std::string_view token = rest_.substr(0, rest_.find_first_of(stops));
    rest_.remove_prefix(token.size());
    return token;
  }
  // The text of a plain value inside a value string or list, which ends at a comma or closing bracket.
  std::string_view token() { return upTo(",}])"); }

  [[noreturn]] void fail(const std::string& expected) const {
    throw ParseException("expected " + expected + " at '" + std::string(rest_.substr(0, 40)) + "'");
  }
  // A value read from a whole text must use all of it.
  void expectEnd() const {
    if (!atEnd()) {
      fail("the end");
    }
  }

 private:
  std::string_view rest_;
};

}  // namespace Zol
