#include "runtime/Fastlog/TraceRegistry.h"

#include <algorithm>
#include <cstdio>

#include "runtime/Zol/Exception.h"

namespace Fastlog {
namespace {

// One write for the whole line, so that lines of several processes do not mix.
void writeToStandardError(const TraceLine& line) {
  std::string text;
  text.append(line.handle).append(" ").append(std::to_string(line.level)).append(" ");
  if (!line.function.empty()) {
    text.append(line.function).append(":").append(std::to_string(line.line)).append(" ");
  }
  text.append(line.text).append("\n");
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

TraceRegistry& TraceRegistry::instance() {
  static TraceRegistry registry;
  return registry;
}

TraceRegistry::TraceRegistry() { traceDestinationIs(nullptr); }

void TraceRegistry::levelIs(const std::string& source, unsigned level) {
  if (level > TraceHandle::levelMax) {
    throw Zol::RangeException("trace level " + std::to_string(level) + " > " + std::to_string(TraceHandle::levelMax) +
                              " not allowed");
  }
  if (source == "*") {
    defaultLevel_ = level;
    levels_.clear();
  } else {
    levels_[source] = level;
  }
  for (TraceHandle* const handle : handles_) {
    refresh(*handle);
  }
}

void TraceRegistry::recordedLevelIs(unsigned level) {
  recordedLevel_ = level;
  for (TraceHandle* const handle : handles_) {
    refresh(*handle);
  }
}

void TraceRegistry::refresh(TraceHandle& handle) const {
  const unsigned set = level(handle.name());
  handle.level_.store(set, std::memory_order_relaxed);
  handle.enabledLevel_.store(std::max(set, recordedLevel_), std::memory_order_relaxed);
}

unsigned TraceRegistry::level(const std::string& source) const {
  const auto named = levels_.find(source);
  return named == levels_.end() ? defaultLevel_ : named->second;
}

std::vector<std::pair<std::string, unsigned>> TraceRegistry::sources() const {
  std::map<std::string, unsigned> named;
  for (const TraceHandle* const handle : handles_) {
    named[handle->name()] = handle->level();
  }
  return {named.begin(), named.end()};
}

void TraceRegistry::traceDestinationIs(Destination destination) {
  destination_ = std::make_shared<const Destination>(destination ? std::move(destination) : writeToStandardError);
}

void TraceRegistry::write(const TraceLine& line) const {
  const std::shared_ptr<const Destination> destination = destination_;
  (*destination)(line);
}

void TraceRegistry::enter(TraceHandle& handle) {
  refresh(handle);
  handles_.push_back(&handle);
}

void TraceRegistry::leave(TraceHandle& handle) { std::erase(handles_, &handle); }

}  // namespace Fastlog
