// NoSpaceWitness: a function that is called when a table's file cannot grow. The writer continues with the records
// that fit, but an operator must see which file system is full. One for a process.
#pragma once

#include <string>

namespace Memtab {

// path: of the file; error: the system's.
using NoSpaceWitness = void (*)(const std::string& path, const std::string& error);
// Null: no witness, as at the start.
void noSpaceWitnessIs(NoSpaceWitness witness);

}  // namespace Memtab
