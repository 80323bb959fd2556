// An explanation for people, as a tree. A tunnel is unfolded where it is mentioned first, and only there; what lies
// deeper than twelve tunnels follows as a tree of its own.
#pragma once

#include <ostream>

#include "agent/Explanation.h"

namespace Agent {

// Requires: explained with Follow::ways. The tunnel's way to the next hops: its vias, the tunnels that they go through,
// the labels that each adds, and what the FIB has of it.
void writeWay(std::ostream& out, const Explanation& explanation, bool isColoured);

// Why the tunnel is, or is not, in the FIB and in each RIB: only what went wrong is followed, down to its causes.
void writeWhy(std::ostream& out, const Explanation& explanation, bool isColoured);

}  // namespace Agent
