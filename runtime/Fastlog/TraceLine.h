// TraceLine: one finished line of trace. The texts live as long as the call that it is given to.
#pragma once

#include <string_view>

namespace Fastlog {

struct TraceLine {
  std::string_view handle;  // name of the handle
  unsigned level;
  std::string_view file;
  int line;
  std::string_view function;
  std::string_view text;
};

}  // namespace Fastlog
