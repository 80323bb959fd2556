// TraceHandle: one source of trace lines and the level up to which they are written. Asking whether a level is on is
// one load and one comparison, so trace calls stay in the code of a running router.
#pragma once

#include <atomic>
#include <string>

namespace Fastlog {

class TraceHandle {
 public:
  static constexpr unsigned levelMax = 9;

  // Enters the registry and takes the level that is set there for its name. Several handles may share a name.
  // option: reserved, 0.
  explicit TraceHandle(std::string name, unsigned option = 0);
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;
  ~TraceHandle();

  const std::string& name() const { return name_; }
  unsigned option() const { return option_; }

  // The level that is set: lines of levels 1 up to this one go to the trace destination; 0: none.
  unsigned level() const { return level_.load(std::memory_order_relaxed); }
  // Whether a line of this level goes anywhere: to the destination, or to the process's ring file.
  bool enabled(unsigned level) const { return level <= enabledLevel_.load(std::memory_order_relaxed); }

 private:
  friend class TraceRegistry;

  std::atomic<unsigned> enabledLevel_ = 0;
  std::atomic<unsigned> level_ = 0;
  const std::string name_;
  const unsigned option_;
};

}  // namespace Fastlog
