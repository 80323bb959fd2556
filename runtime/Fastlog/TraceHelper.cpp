#include "runtime/Fastlog/TraceHelper.h"

#include <string>

#include "runtime/Fastlog/TraceRegistry.h"

namespace Fastlog {

TraceHelper::TraceHelper(const TraceHandle& handle, unsigned level)
    : handle_(&handle), level_(level), text_(std::make_unique<std::ostringstream>()) {}

void TraceHelper::trace(const char* file, int line, const char* function) {
  const std::string text = text_->str();
  TraceRegistry::instance().write({handle_->name(), level_, file, line, function, text});
}

}  // namespace Fastlog
