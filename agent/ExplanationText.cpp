#include "agent/ExplanationText.h"

#include <algorithm>
#include <deque>
#include <iterator>

#include "agent/InputError.h"
#include "agent/StateDocument.h"

namespace Agent {
namespace {

using Finding = Model::TunnelFibFinding;
using Result = Model::TunnelFibViaCalcResult;

constexpr std::size_t levelsMax = 12;  // tunnels under each other in one tree
constexpr std::size_t listedMax = 16;  // tunnels in one line

// What each flag of a dropped via says.
constexpr const char* flagWords[] = {"the next level waits for review", "the next level is unprogrammable",
                                     "the next level is missing",       "the next level does not contribute",
                                     "labels cannot be joined",         "the next level leads back"};
static_assert(std::size(flagWords) == std::size(Result::flagNames));

std::string labelsOf(const Ipkit::MplsLabelOperation& labelOp) { return textOf(topFirst(labelOp)); }

bool hasFault(const Finding::FoundVia& via) { return via.isSkipped || !(via.result == Result()); }

// "table ldp"
std::string tableOf(const Model::TunnelId& tunnel) {
  std::string names;
  for (const Model::TunnelTableIdentifier table : tablesOf(tunnel.tunnelType())) {
    names += (names.empty() ? "table " : ", ") + Zol::stringOf(table);
  }
  return names.empty() ? "any table: none has tunnels of this type" : names;
}

std::string noViasWords(std::size_t published) {
  if (published == 0) {
    return "its table entry has no vias";
  }
  return published == 1 ? "its via cannot be used" : "none of its " + counted(published, "via") + " can be used";
}

std::string standingWords(const Model::TunnelId& tunnel, const ExplainedTunnel& explained) {
  const auto& vias = explained.finding.vias;
  const auto faults = static_cast<std::size_t>(std::count_if(vias.begin(), vias.end(), hasFault));
  switch (explained.standing) {
    case FibStanding::programmed:
      return "in the FIB with " + counted(explained.vias.size(), "via") +
             (faults == 0 ? ""
                          : "; dropped, wholly or in part: " + std::to_string(faults) + " of its " +
                                counted(vias.size(), "via"));
    case FibStanding::waiting:
      return "waits for review";
    case FibStanding::noTableEntry:
      return "not in the FIB, no entry in " + tableOf(tunnel);
    case FibStanding::notContributing:
      return "not in the FIB, BGP marks it as not contributing";
    case FibStanding::noPush:
      return "not in the FIB, its label operation is not a push";
    case FibStanding::noVias:
      return "not in the FIB, " + noViasWords(vias.size());
    case FibStanding::tooManyVias:
      return "not in the FIB, more than 512 vias";
    case FibStanding::tooManyBackupVias:
      break;
  }
  return "not in the FIB, more than 512 backup vias";
}

std::string faultWords(const Finding::FoundVia& via, const ExplainedTunnel& explained) {
  std::string words;
  if (via.isSkipped) {
    words = explained.standing == FibStanding::tooManyVias ? ": not looked at, there are too many before it"
                                                           : ": not looked at yet";
  }
  for (unsigned bit = 0; bit < std::size(flagWords); ++bit) {
    if (via.result.flag(bit)) {
      words += std::string(": ") + flagWords[bit] + " (" + Result::flagNames[bit] + ")";
    }
  }
  if (via.result.recTunFlattenError()) {
    words += ", " + std::to_string(via.refused.size()) + " of " + counted(via.nextLevelVias, "via") + " dropped";
  }
  return via.result.recTunCycle() ? words + ", cycle of " + listOf(explained.finding.cycle, listedMax) : words;
}

TextTree refusedTree(const Finding::RefusedVia& refused, const Ipkit::MplsLabelOperation& own) {
  const std::string via = summaryOf(refused.via.via);
  if (refused.obstacle == Model::JoinObstacle::noLabelStack) {
    return TextTree(via + ": wrapped as " + Fib::stringValue(refused.via.encapType) + ", no labels go inside");
  }
  return TextTree(via + ": " + labelsOf(refused.via.labelOp) + " on top of " + labelsOf(own) + " are " +
                  counted(refused.via.labelOp.stackSize() + own.stackSize(), "label") + ", at most " +
                  std::to_string(Ipkit::MplsLabelOperation::stackSizeMax));
}

// Unfolds the tunnels of one explanation, each once.
class Unfolding {
 public:
  // Follow::causes: shows vias with a fault only.
  Unfolding(const Explanation& explanation, Follow follow) : explanation_(explanation), follow_(follow) {}

  // What stands under the tunnel. level: how many tunnels stand above.
  std::vector<TextTree> below(const Model::TunnelId& tunnel, std::size_t level) {
    places_[tunnel] = Place::above;
    const ExplainedTunnel& explained = explanation_.tunnels.at(tunnel);
    std::vector<TextTree> trees;
    for (const Finding::FoundVia& via : explained.finding.vias) {
      if (isShown(explained, via)) {
        trees.push_back(viaTree(via, explained, level));
      }
    }
    if (follow_ == Follow::causes) {
      return trees;
    }
    TextTree written("in the FIB");
    std::vector<TextTree>& fib = trees.empty() ? trees : written.children;
    for (const FibVia& via : explained.vias) {
      fib.emplace_back(summaryOf(via));
    }
    for (const FibVia& via : explained.backupVias) {
      fib.emplace_back("backup " + summaryOf(via));
    }
    if (!written.children.empty()) {
      trees.push_back(std::move(written));
    }
    return trees;
  }

  // The trees of the tunnels that have been left for later, and of those that these leave.
  std::vector<TextTree> rest() {
    std::vector<TextTree> trees;
    for (; !later_.empty(); later_.pop_front()) {
      TextTree tree = headOf(later_.front());
      tree.children = below(later_.front(), 0);
      trees.push_back(std::move(tree));
    }
    return trees;
  }

  TextTree headOf(const Model::TunnelId& tunnel) const {
    const ExplainedTunnel& explained = explanation_.tunnels.at(tunnel);
    const auto& tep = explained.finding.head.tep();
    const bool isGood = explained.standing == FibStanding::programmed;
    const std::string name = Zol::stringOf(tunnel) + (!tep ? "" : " to " + Zol::stringOf(tep));
    return isGood ? TextTree(name) : TextTree(name + ": " + standingWords(tunnel, explained), TextTree::Tone::fault);
  }

  // The tunnel with what stands under it, or where that stands.
  TextTree tunnelTree(const Model::TunnelId& tunnel, std::size_t level) {
    TextTree tree = headOf(tunnel);
    const auto place = places_.find(tunnel);
    if (place == places_.end() && level < levelsMax) {
      tree.children = below(tunnel, level);
    } else if (place == places_.end() || place->second == Place::below) {
      tree.text += " (see below)";
    } else if (const auto& explained = explanation_.tunnels.at(tunnel);
               !explained.finding.vias.empty() || !explained.vias.empty()) {
      tree.text += " (see above)";
    }
    if (place == places_.end() && level >= levelsMax) {
      places_[tunnel] = Place::below;
      later_.push_back(tunnel);
    }
    return tree;
  }

 private:
  enum class Place { above, below };

  // Vias that leave directly are as the FIB has them; they are shown only beside others.
  bool isShown(const ExplainedTunnel& explained, const Finding::FoundVia& via) const {
    if (follow_ == Follow::causes) {
      return hasFault(via);
    }
    const auto& vias = explained.finding.vias;
    return std::any_of(vias.begin(), vias.end(), [](const auto& each) { return each.nextLevel || hasFault(each); });
  }

  TextTree viaTree(const Finding::FoundVia& via, const ExplainedTunnel& explained, std::size_t level) {
    TextTree tree(summaryOf(static_cast<const Model::Via&>(via.via)) + " adds " + labelsOf(via.via.labelOp()) +
                      faultWords(via, explained),
                  hasFault(via) ? TextTree::Tone::fault : TextTree::Tone::plain);
    for (const Finding::RefusedVia& refused : via.refused) {
      tree.children.push_back(refusedTree(refused, via.via.labelOp()));
    }
    if (const auto next = followed(via, follow_)) {
      tree.children.push_back(tunnelTree(*next, level + 1));
    }
    return tree;
  }

  const Explanation& explanation_;
  const Follow follow_;
  std::map<Model::TunnelId, Place> places_;
  std::deque<Model::TunnelId> later_;
};

std::string comparisonWords(const ExplainedRib& rib) {
  const bool isExisting = rib.standing == RibStanding::inEntry;
  const std::string own = std::to_string(isExisting ? rib.comparison.existing : rib.comparison.candidate);
  const std::string other = std::to_string(isExisting ? rib.comparison.candidate : rib.comparison.existing);
  if (rib.comparison.by == Model::SourceComparison::By::preference) {
    return "preference " + own + " against " + other;
  }
  return "both have preference " + std::to_string(rib.pref) + ", default preference of the type " + own + " against " +
         other;
}

TextTree ribsTree(const Explanation& explanation) {
  TextTree tree("RIBs");
  for (const ExplainedRib& rib : explanation.ribs) {
    tree.children.emplace_back(printable(rib.name) + ": " + ribWords(rib, explanation.tunnel),
                               rib.standing == RibStanding::inEntry ? TextTree::Tone::plain : TextTree::Tone::fault);
  }
  return tree;
}

void writeAll(std::ostream& out, bool isColoured, TextTree top, Unfolding& unfolding) {
  top.tone = TextTree::Tone::title;
  top.write(out, isColoured);
  for (const TextTree& tree : unfolding.rest()) {
    tree.write(out, isColoured);
  }
}

}  // namespace

std::string ribWords(const ExplainedRib& rib, const Model::TunnelId& tunnel) {
  const std::string tep = Zol::stringOf(rib.tep);
  switch (rib.standing) {
    case RibStanding::inEntry:
      return "in the entry of " + tep + " with preference " + std::to_string(rib.pref) +
             (rib.tunnels.size() == 1 ? ", alone" : ", one of " + counted(rib.tunnels.size(), "tunnel")) +
             (rib.rival ? "; before " + Zol::stringOf(*rib.rival) + ": " + comparisonWords(rib)
                        : "; no other source has a candidate");
    case RibStanding::lost:
      return "lost " + tep + " to " + listOf(rib.tunnels, 4) + ": " + comparisonWords(rib);
    case RibStanding::entryFull:
      return "waits for a place, the entry of " + tep + " has its " + counted(rib.tunnels.size(), "tunnel");
    case RibStanding::waiting:
      return "waits for review";
    case RibStanding::tableNotTaken:
      return "takes no tunnels of " + tableOf(tunnel);
    case RibStanding::tableNotMounted:
      return tableOf(tunnel) + " is not mounted";
    case RibStanding::otherType:
      return "tunnels of this type are in no RIB";
    case RibStanding::noTableEntry:
      return "no entry in " + tableOf(tunnel);
    case RibStanding::noTep:
      return "no candidate, it has no tunnel endpoint";
    case RibStanding::notContributing:
      return "no candidate, BGP marks it as not contributing";
    case RibStanding::unprogrammable:
      break;
  }
  return "no candidate, it is not in the FIB";
}

void writeWay(std::ostream& out, const Explanation& explanation, bool isColoured) {
  Unfolding unfolding(explanation, Follow::ways);
  TextTree top = unfolding.headOf(explanation.tunnel);
  top.children = unfolding.below(explanation.tunnel, 0);
  writeAll(out, isColoured, std::move(top), unfolding);
}

void writeWays(std::ostream& out, const std::vector<Model::TunnelId>& tunnels, const std::string& title,
               const Explanation& explanation, bool isColoured) {
  Unfolding unfolding(explanation, Follow::ways);
  TextTree top(title);
  for (const Model::TunnelId& tunnel : tunnels) {
    top.children.push_back(unfolding.tunnelTree(tunnel, 1));
  }
  writeAll(out, isColoured, std::move(top), unfolding);
}

void writeWhy(std::ostream& out, const Explanation& explanation, bool isColoured, const std::vector<TextTree>& more) {
  Unfolding unfolding(explanation, Follow::causes);
  const ExplainedTunnel& explained = explanation.tunnels.at(explanation.tunnel);
  TextTree fib(standingWords(explanation.tunnel, explained),
               explained.standing == FibStanding::programmed ? TextTree::Tone::plain : TextTree::Tone::fault);
  fib.children = unfolding.below(explanation.tunnel, 0);
  TextTree top("why " + Zol::stringOf(explanation.tunnel));
  top.children.push_back(std::move(fib));
  top.children.push_back(ribsTree(explanation));
  top.children.insert(top.children.end(), more.begin(), more.end());
  writeAll(out, isColoured, std::move(top), unfolding);
}

std::vector<TextTree> causeTrees(const std::vector<Model::TunnelId>& tunnels, const Explanation& explanation) {
  Unfolding unfolding(explanation, Follow::causes);
  std::vector<TextTree> trees;
  for (const Model::TunnelId& tunnel : tunnels) {
    trees.push_back(unfolding.tunnelTree(tunnel, 1));
  }
  for (TextTree& tree : unfolding.rest()) {
    trees.push_back(std::move(tree));
  }
  return trees;
}

}  // namespace Agent
