// What may stand where an option of tunnelctl takes a value, for completion in a shell.
#pragma once

#include <string>
#include <vector>

#include "agent/CommandPages.h"

namespace Tools {

// Tables, tunnel types, reasons, the RIBs of the state directory, and the trace sources of its agent. Nothing for other
// places, and when nothing can be read.
std::vector<std::string> valueNames(const Agent::ValuePlace& place);

}  // namespace Tools
