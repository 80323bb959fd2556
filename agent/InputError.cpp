#include "agent/InputError.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace Agent {
namespace {

struct Sequence {
  std::size_t length = 0;  // 0: none
  std::uint32_t codePoint = 0;
};

// The sequence at the begin of text.
Sequence sequenceAt(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint32_t lead = byte(0);
  if (lead < 0x80) {
    return {1, lead};
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
    return {};
  }
  std::uint32_t codePoint = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return {};
    }
    codePoint = (codePoint << 6) | (byte(i) & 0x3FU);
  }
  constexpr std::array<std::uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  return codePoint < smallest.at(length) || codePoint > 0x10FFFF || isSurrogate ? Sequence{}
                                                                                : Sequence{length, codePoint};
}

bool isControl(std::uint32_t codePoint) { return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0); }

}  // namespace

std::string printable(std::string_view text, std::size_t maxBytes) {
  std::string result;
  while (!text.empty()) {
    const Sequence sequence = sequenceAt(text);
    const std::size_t length = sequence.length == 0 ? 1 : sequence.length;
    if (result.size() + length > maxBytes) {
      return result + "...";
    }
    if (sequence.length == 0) {
      result += '?';
    } else if (isControl(sequence.codePoint)) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", sequence.codePoint);
      result += escape.data();
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return result;
}

std::string counted(std::uint64_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many.empty() ? one + "s" : many);
}

void requireUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = sequenceAt(text.substr(at, 4)).length;
    if (length == 0) {
      throw InputError("line", "column " + std::to_string(at + 1) + ": not UTF-8");
    }
    at += length;
  }
}

}  // namespace Agent
