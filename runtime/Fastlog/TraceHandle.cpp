#include "runtime/Fastlog/TraceHandle.h"

#include <utility>

#include "runtime/Fastlog/TraceRegistry.h"

namespace Fastlog {

TraceHandle::TraceHandle(std::string name, unsigned option) : name_(std::move(name)), option_(option) {
  TraceRegistry::instance().enter(*this);
}

TraceHandle::~TraceHandle() { TraceRegistry::instance().leave(*this); }

}  // namespace Fastlog
