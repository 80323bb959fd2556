// An explanation for people, as a tree. A tunnel is unfolded where it is mentioned first, and only there; what lies
// deeper than twelve tunnels follows as a tree of its own.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "agent/Explanation.h"
#include "agent/TextTree.h"

namespace Agent {

// Requires: explained with Follow::ways. The tunnel's way to the next hops: its vias, the tunnels that they go through,
// the labels that each adds, and what the FIB has of it.
void writeWay(std::ostream& out, const Explanation& explanation, bool isColoured);

// The same of several tunnels, below a title.
void writeWays(std::ostream& out, const std::vector<Model::TunnelId>& tunnels, const std::string& title,
               const Explanation& explanation, bool isColoured);

// Why the tunnel is, or is not, in the FIB and in each RIB: only what went wrong is followed, down to its causes. more
// stands below that.
void writeWhy(std::ostream& out, const Explanation& explanation, bool isColoured,
              const std::vector<TextTree>& more = {});

// How each of these tunnels stands in the FIB, and what went wrong with it, down to the causes.
std::vector<TextTree> causeTrees(const std::vector<Model::TunnelId>& tunnels, const Explanation& explanation);

// How the tunnel stands in one RIB: "lost 10.0.0.5/32 to ldpTunnel/5: preference 10 against 9".
std::string ribWords(const ExplainedRib& rib, const Model::TunnelId& tunnel);

}  // namespace Agent
