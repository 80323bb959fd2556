// RingMessage: one place in the code that writes messages to the process's ring file.
//
//     static Fastlog::RingMessage message("TunnelFibSm", __LINE__, "too many vias: %i, (max %i)");
//     message.write(count, max);
//
// Without a ring file a message costs a load and a branch. Scheduler thread only.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/Fastlog/RingFile.h"

namespace Fastlog {

class RingMessage {
 public:
  constexpr RingMessage(const char* source, std::uint32_t line, const char* format)
      : source_(source), format_(format), line_(line) {}

  // Integers and texts, one for each "%i" and "%s" of the format.
  template <class... Values>
  void write(const Values&... values) {
    RingFile* const file = RingFile::defaultFile();
    if (file == nullptr) {
      return;
    }
    if (file != file_) {
      descriptor_ = file->descriptorIs(source_, line_, format_);
      file_ = file;
    }
    std::string payload;
    (append(payload, values), ...);
    file->write(descriptor_, payload);
  }

 private:
  template <class Value>
  static void append(std::string& payload, const Value& value) {
    if constexpr (std::is_integral_v<Value>) {
      const auto number = static_cast<std::int64_t>(value);
      payload.append(reinterpret_cast<const char*>(&number), sizeof number);
    } else {
      const std::string_view text(value);
      payload.push_back(static_cast<char>(std::min<std::size_t>(text.size(), 64)));
      payload.append(text.substr(0, 64));
    }
  }

  const char* const source_;
  const char* const format_;
  const std::uint32_t line_;
  const RingFile* file_ = nullptr;
  std::uint32_t descriptor_ = 0;
};

}  // namespace Fastlog
