// TraceSetting: the level of one source, or of all ("*"), as an operator writes it: SOURCE=LEVEL.
#pragma once

#include <string>
#include <string_view>

namespace Fastlog {

struct TraceSetting {
  // Raises ParseException for a text of another form and RangeException for a level above 9.
  static TraceSetting parse(std::string_view text);

  std::string source;
  unsigned level = 0;
};

}  // namespace Fastlog
