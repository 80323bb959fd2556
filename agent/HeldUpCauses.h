// HeldUpCauses: why tunnels and entries wait. The tables' library reports files that cannot grow and damaged records to
// one function of the process each; this collects them as long as anything waits, and logs damage.
#pragma once

#include <string>
#include <vector>

#include "agent/Reasons.h"

namespace Agent {

// From now on causes are collected and damage is logged, once for each record. For the whole process.
void heldUpCausesAreWatched();

// isWaiting: for space or for a readable table. If nothing is, the causes are forgotten. Otherwise a reason for each
// file that could not grow, and one for the damaged tables.
std::vector<Reason> heldUpReasons(const std::string& stateDirectory, bool isWaiting);

}  // namespace Agent
