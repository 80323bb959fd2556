// StructureCheck: whether the tables of a state directory are sound in themselves and fit together, whatever they ought
// to say: every file can be read and is complete, every record can be read, is found under its key and is one that the
// table takes, as many as the header counts; RIB entries name tunnels of one type, each once; every via's encapsulation
// has a record of its type, and every record has a via.
#pragma once

#include <string>
#include <vector>

#include "agent/JsonText.h"
#include "tools/StateReading.h"

namespace Tools {

struct Problem {
  std::string table;  // as StateReading names it; of the FIB's collections "fib", "fib gre", "fib labelStack", ...
  std::string text;

  friend bool operator==(const Problem&, const Problem&) = default;
};

// Of the tables as they are at this moment. O(all tables).
std::vector<Problem> structureProblems(StateReading& reading);

// The same for a directory that others may be writing: what is found while tables move is looked for again, and counts
// when it was found at every try. Raises runtime_error when there is no such directory.
std::vector<Problem> checkStructure(const std::string& stateDirectory);

}  // namespace Tools
