// TraceHelper: builds one line of trace, if its level is on. The usual call is the macro below,
//
//     FASTLOG_TRACE(7, "tunnelId: " << id << " is not ready");
//
// which evaluates none of the streamed values while the level is off. It needs a function _defaultTraceHandle() in the
// scope of the call; FASTLOG_DEFAULT_HANDLE makes one for a source unit, and a class whose code is in a header declares
// a static one.
#pragma once

#include <concepts>
#include <memory>
#include <sstream>

#include "runtime/Fastlog/TraceHandle.h"
#include "runtime/Fastlog/TraceSite.h"

namespace Fastlog {

class TraceHelper {
 public:
  // A helper that is false when the level is off; nothing has been made then, and nothing may be streamed into it.
  static TraceHelper createIfEnabled(const TraceHandle& handle, unsigned level) {
    return handle.enabled(level) ? TraceHelper(handle, level, nullptr) : TraceHelper();
  }
  // The same for a call whose lines may come in floods. siteOf() is the call's TraceSite. It limits the lines that only
  // the ring file takes, not those of a level that is set.
  template <class SiteOf>
  static TraceHelper createIfEnabled(const TraceHandle& handle, unsigned level, SiteOf siteOf) {
    return handle.enabled(level) ? createUnlessLimited(handle, level, siteOf()) : TraceHelper();
  }

  explicit operator bool() const { return text_ != nullptr; }

  // As std::ostream prints it (flags as 0 and 1), except that a number of 8 bits is a number and not a character.
  template <class T>
  TraceHelper& operator<<(const T& value) {
    if constexpr (std::same_as<T, unsigned char> || std::same_as<T, signed char>) {
      *text_ << +value;
    } else {
      *text_ << value;
    }
    return *this;
  }

  // Writes the line to the trace destination, if its level is set, and to the process's ring file.
  // signature: that of the function; it names the function around a lambda.
  void trace(const char* file, int line, const char* function, const char* signature = "");

 private:
  TraceHelper() = default;
  TraceHelper(const TraceHandle& handle, unsigned level, TraceSite* site);
  static TraceHelper createUnlessLimited(const TraceHandle& handle, unsigned level, TraceSite& site);

  const TraceHandle* handle_ = nullptr;
  TraceSite* site_ = nullptr;  // null: the line is not limited
  unsigned level_ = 0;
  std::unique_ptr<std::ostringstream> text_;
};

}  // namespace Fastlog

#define FASTLOG_TRACE(level, ...)                                                                  \
  if (Fastlog::TraceHelper fastlogLine =                                                           \
          Fastlog::TraceHelper::createIfEnabled(_defaultTraceHandle(), level,                      \
                                                []() -> Fastlog::TraceSite& {                      \
                                                  static constinit Fastlog::TraceSite fastlogSite; \
                                                  return fastlogSite;                              \
                                                });                                                \
      !fastlogLine) {                                                                              \
  } else                                                                                           \
    (fastlogLine << __VA_ARGS__).trace(__FILE__, __LINE__, __func__, __PRETTY_FUNCTION__)

// The trace handle of the source unit that this stands in, made on first use.
#define FASTLOG_DEFAULT_HANDLE(source)                           \
  namespace {                                                    \
  [[maybe_unused]] Fastlog::TraceHandle& _defaultTraceHandle() { \
    static Fastlog::TraceHandle handle(source, 0);               \
    return handle;                                               \
  }                                                              \
  }
