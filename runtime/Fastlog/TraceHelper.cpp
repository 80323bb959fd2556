#include "runtime/Fastlog/TraceHelper.h"

#include <string>
#include <string_view>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/TraceRegistry.h"

namespace Fastlog {
namespace {

// The function around a lambda, from a signature such as "void Space::Type::handle(int)::<lambda(bool)>", which is how
// one compiler spells it; another has "(anonymous class)::operator()" in place of "<lambda".
std::string_view functionAround(std::string_view signature) {
  for (const std::string_view mark : {"::<lambda", "::(anonymous class)", "::(lambda"}) {
    signature = signature.substr(0, signature.find(mark));
  }
  const std::size_t end = signature.rfind(')');
  if (end == std::string_view::npos) {
    return signature;
  }
  std::size_t begin = end;  // of the parameters: parentheses may lie within
  for (int depth = 1; depth > 0 && begin > 0;) {
    --begin;
    depth += signature[begin] == ')' ? 1 : signature[begin] == '(' ? -1 : 0;
  }
  signature = signature.substr(0, begin);
  return signature.substr(signature.find_last_of(": ") + 1);
}

}  // namespace

TraceHelper::TraceHelper(const TraceHandle& handle, unsigned level, TraceSite* site)
    : handle_(&handle), site_(site), level_(level), text_(std::make_unique<std::ostringstream>()) {}

TraceHelper TraceHelper::createUnlessLimited(const TraceHandle& handle, unsigned level, TraceSite& site) {
  if (level <= handle.level()) {
    return TraceHelper(handle, level, nullptr);
  }
  return site.admits() ? TraceHelper(handle, level, &site) : TraceHelper();
}

void TraceHelper::trace(const char* file, int line, const char* function, const char* signature) {
  std::string text = text_->str();
  if (site_ != nullptr) {
    if (const std::uint64_t leftOut = site_->takeLeftOut(); leftOut != 0) {
      text += " (" + std::to_string(leftOut) + " lines like this were left out)";
    } else if (site_->isBurstOver()) {
      text += " (most lines like this are left out from here on)";
    }
  }
  const std::string_view name = function == std::string_view("operator()") ? functionAround(signature) : function;
  const TraceLine finished{handle_->name(), level_, file, line, name, text};
  if (level_ <= handle_->level()) {
    TraceRegistry::instance().write(finished);
  }
  if (RingFile* const ring = RingFile::defaultFile()) {
    ring->write(finished);
  }
}

}  // namespace Fastlog
