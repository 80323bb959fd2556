// Lag: in what RIBs and FIB, as they are published, differ from what the tables ask for, and why that may be. Who
// answers out of a shadow says so too.
#pragma once

#include <string>
#include <vector>

#include "tools/Shadow.h"
#include "tools/StateComparison.h"

namespace Tools {

struct Lag {
  std::vector<std::string> reasons;     // none: nothing differs
  std::vector<Difference> differences;  // left: published, right: due
};

// Of what the scope names, up to so many differences.
Lag lagOf(StateReading& reading, const Shadow& shadow, const ComparisonScope& scope, std::size_t limit);

// "the agent is behind"
std::string reasonsOf(const Lag& lag);

// {"asDue": ..., "reasons": [...]}
OrderedJson lagJson(const Lag& lag);

}  // namespace Tools
