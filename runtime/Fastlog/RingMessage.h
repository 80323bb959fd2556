// RingMessage: one place in the code that writes compact messages of values to the process's ring file.
//
//     static Fastlog::RingMessage message("TunnelFibSm", __LINE__, "too many vias: %i, (max %i)");
//     message.write(count, max);
//
// Without a ring file a message costs a load and a branch. Messages are events. Scheduler thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/TraceSite.h"

namespace Fastlog {

class RingMessage {
 public:
  static constexpr unsigned level = 3;

  // format: one "%i" for each integer and one "%s" for each text, in the order of the values.
  constexpr RingMessage(const char* source, std::uint32_t line, const char* format)
      : source_(source), format_(format), line_(line) {}

  template <class... Values>
  void write(const Values&... values) {
    RingFile* const file = RingFile::defaultFile();
    if (file != nullptr && site_.admits()) {
      std::string text;
      std::string_view rest = format_;
      (append(text, rest, values), ...);
      text += rest;
      file->write({source_, level, "", static_cast<int>(line_), "", text});
    }
  }

 private:
  // Appends the format up to its next place, and the value.
  template <class Value>
  static void append(std::string& text, std::string_view& rest, const Value& value) {
    const std::size_t place = rest.find('%');
    text += rest.substr(0, place);
    rest.remove_prefix(place == std::string_view::npos ? rest.size() : place + 2);
    if constexpr (std::is_integral_v<Value>) {
      text += std::to_string(value);
    } else {
      text += std::string_view(value);
    }
  }

  const char* const source_;
  const char* const format_;
  const std::uint32_t line_;
  TraceSite site_;
};

}  // namespace Fastlog
