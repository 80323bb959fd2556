// TraceRegistry: all trace handles of the process, their levels, and where finished lines go.
//
// A level belongs to a source name, not to a handle: it can be set before the source makes its handle, and it holds for
// all handles of that name. What was set last wins, also between "*" and a name.
// Levels, handles and the destination change on one thread, the one that traces.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/Fastlog/TraceHandle.h"
#include "runtime/Fastlog/TraceLine.h"

namespace Fastlog {

class TraceRegistry {
 public:
  using Destination = std::function<void(const TraceLine&)>;

  static TraceRegistry& instance();

  // Sets the level of a source, or with "*" that of all sources, present and future.
  // Raises RangeException when level > TraceHandle::levelMax.
  void levelIs(const std::string& source, unsigned level);
  // The level that a handle of this name has or would get.
  unsigned level(const std::string& source) const;
  // Name and level of each source that has a handle, in the order of names.
  std::vector<std::pair<std::string, unsigned>> sources() const;

  // Enables lines up to this level for the process's ring file, also when lower levels are set; 0: there is no file.
  void recordedLevelIs(unsigned level);

  // Takes every finished line from now on. Null: back to standard error, "name level function:line text".
  void traceDestinationIs(Destination destination);
  void write(const TraceLine& line) const;

 private:
  friend class TraceHandle;

  TraceRegistry();
  void enter(TraceHandle& handle);
  void refresh(TraceHandle& handle) const;
  void leave(TraceHandle& handle);

  std::vector<TraceHandle*> handles_;
  unsigned defaultLevel_ = 0;
  unsigned recordedLevel_ = 0;
  std::map<std::string, unsigned> levels_;          // of the sources named since the default was set
  std::shared_ptr<const Destination> destination_;  // shared with the call in progress, which may replace it
};

}  // namespace Fastlog
