#include "runtime/Zol/Value.h"

#include <charconv>

namespace Zol {

void appendAll(std::string& text, std::initializer_list<std::string_view> parts) {
  for (const std::string_view part : parts) {
    text += part;
  }
}

void expectValueHead(TextCursor& in, const char* typeName) {
  in.expect("Value('");
  in.expect(typeName);
  in.expect("', ** {");
}

std::uint64_t parseUnsigned(std::string_view text, std::uint64_t max) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
    throw ParseException("expected a number at '" + std::string(text) + "'");
  }
  if (error != std::errc() || value > max) {
    throw RangeException("value > " + std::to_string(max) + " not allowed");
  }
  return value;
}

}  // namespace Zol
