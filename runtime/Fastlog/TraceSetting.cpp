#include "runtime/Fastlog/TraceSetting.h"

#include "runtime/Fastlog/TraceHandle.h"
#include "runtime/Zol/TextCursor.h"
#include "runtime/Zol/Value.h"

namespace Fastlog {

TraceSetting TraceSetting::parse(std::string_view text) {
  Zol::TextCursor in(text);
  const std::string_view source = in.upTo("=");
  if (source.empty()) {
    in.fail("a trace source");
  }
  in.expect("=");
  return {std::string(source), static_cast<unsigned>(Zol::parseUnsigned(in.rest(), TraceHandle::levelMax))};
}

}  // namespace Fastlog
