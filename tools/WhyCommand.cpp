// "why": what the decisions about one tunnel or endpoint rest on.

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <variant>

#include "agent/ExplanationJson.h"
#include "agent/ExplanationText.h"
#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "tools/EndpointView.h"
#include "tools/InputDamage.h"
#include "tools/Lag.h"
#include "tools/ShadowCommands.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

using Agent::TextTree;

constexpr std::size_t differencesMax = 20;  // that are told of what is published

struct WhyOptions : ShadowOptions {
  std::string subject;
};

// An address stands for the endpoint with the longest prefix that holds it.
using Subject = std::variant<Model::TunnelId, Ipkit::IpGenPrefix, Ipkit::IpGenAddr>;

template <class Value>
std::optional<Subject> subjectAs(const std::string& text) {
  try {
    return Value::fromText(text);
  } catch (const Zol::Exception&) {
    return std::nullopt;
  }
}

// Raises InputError.
Subject subjectOf(const std::string& text) {
  for (const auto& subject :
       {subjectAs<Model::TunnelId>(text), subjectAs<Ipkit::IpGenPrefix>(text), subjectAs<Ipkit::IpGenAddr>(text)}) {
    if (subject) {
      return *subject;
    }
  }
  throw Agent::InputError("TUNNEL|TEP", "'" + Agent::printable(text) +
                                            "' is neither a tunnel, as ldpTunnel/5, nor a prefix, as 10.0.0.5/32, nor "
                                            "an address");
}

// The longest prefix with the address in it that a table asks for or a RIB has. O(tables).
std::optional<Ipkit::IpGenPrefix> endpointOf(StateReading& reading, const Shadow& shadow,
                                             const Ipkit::IpGenAddr& address) {
  std::optional<Ipkit::IpGenPrefix> longest;
  const auto consider = [&](const Ipkit::IpGenPrefix& tep) {
    if (!!tep && tep.contains(address) && (!longest || tep.length() > longest->length())) {
      longest = tep;
    }
    return true;
  };
  for (const Agent::TableId id : Agent::ribTables) {
    shadow.host().tables().withTable(
        id, [&](const auto& table) { walk(table, {}, [&](const auto& entry) { return consider(entry.tep()); }); });
  }
  for (const auto& rib : reading.ribs()) {
    Model::TunnelRibEntry entry;
    if (longestMatch(*rib, address, entry)) {
      consider(entry.tep());
    }
  }
  return longest;
}

// Where the tunnel is due, and where RIBs have it. O(RIBs).
std::vector<Ipkit::IpGenPrefix> endpointsOf(StateReading& reading, const Shadow& shadow,
                                            const Model::TunnelId& tunnel) {
  std::vector<Ipkit::IpGenPrefix> teps;
  const Ipkit::IpGenPrefix due = tepOf(shadow.host(), tunnel);
  if (!!due) {
    teps.push_back(due);
  }
  for (const auto& rib : reading.ribs()) {
    walk(*rib, {}, [&](const Model::TunnelRibEntry& entry) {
      if (entry.hasTunnelId(tunnel) && std::find(teps.begin(), teps.end(), entry.tep()) == teps.end()) {
        teps.push_back(entry.tep());
      }
      return true;
    });
  }
  return teps;
}

// What is published, where that is something else.
std::vector<TextTree> lagTrees(const Lag& lag) {
  if (lag.differences.empty()) {
    return {};
  }
  TextTree tree("published is something else: " + reasonsOf(lag), TextTree::Tone::fault);
  for (const Difference& each : lag.differences) {
    tree.children.emplace_back(publishedWords(each));
  }
  return {tree};
}

void writeJson(OrderedJson json, const Lag& lag) {
  json["published"] = lagJson(lag);
  OrderedJson& differences = json["published"]["differences"] = OrderedJson::array();
  for (const Difference& each : lag.differences) {
    differences.push_back(differenceJson(each, "published", "due"));
  }
  std::cout << json.dump(1) << '\n';
}

constexpr const char* dependsOnDamage = ": depends on a damaged table record; the entry that is due is unknown";

// Nothing is known to be due; a running agent keeps the entries of the tunnel. problem: what follows the subject.
int tellDamaged(const WhyOptions& options, const std::string& subject, const char* problem,
                const std::string& damaged) {
  if (options.isJson) {
    std::cout << OrderedJson{{"subject", subject}, {"damaged", damaged}}.dump(1) << '\n';
  } else {
    TextTree tree(subject + problem, TextTree::Tone::fault);
    tree.children.emplace_back(damaged);
    tree.children.emplace_back("a running agent keeps the present entries until the publisher writes the record again");
    tree.write(std::cout, Agent::isOutputColoured());
  }
  return exitFailed;
}

int runWhyTunnel(const WhyOptions& options, StateReading& reading, const Shadow& shadow,
                 const Model::TunnelId& tunnel) {
  const InputDamage damage(reading);
  if (const std::string damaged = damage.lineOf(tunnel); !damaged.empty()) {
    return tellDamaged(options, Zol::stringOf(tunnel),
                       ": its table record is damaged; the entry that is due is unknown", damaged);
  }
  if (damage.affects(Zol::stringOf(tunnel))) {
    return tellDamaged(options, Zol::stringOf(tunnel), dependsOnDamage, damage.lines().front().text);
  }
  const Agent::Explanation explanation = explained(shadow, tunnel);
  const Lag lag =
      lagOf(reading, shadow, {{{tunnel}}, endpointsOf(reading, shadow, tunnel), options.isJson}, differencesMax);
  if (options.isJson) {
    writeJson(Agent::explanationJson(explanation), lag);
  } else {
    Agent::writeWhy(std::cout, explanation, Agent::isOutputColoured(), lagTrees(lag));
  }
  const bool isKnown = explanation.tunnels.at(tunnel).standing != Agent::FibStanding::noTableEntry;
  return isKnown || !lag.differences.empty() ? exitDone : exitFailed;
}

int runWhyEndpoint(const WhyOptions& options, StateReading& reading, const Shadow& shadow,
                   const Ipkit::IpGenPrefix& tep) {
  if (const InputDamage damage(reading); damage.affects(Zol::stringOf(tep))) {
    return tellDamaged(options, Zol::stringOf(tep), dependsOnDamage, damage.lines().front().text);
  }
  const EndpointView view(shadow, tep);
  const Lag lag = lagOf(reading, shadow, {std::vector<Model::TunnelId>(), {{tep}}, options.isJson}, differencesMax);
  if (options.isJson) {
    writeJson(view.json(), lag);
  } else {
    TextTree tree = view.tree();
    const std::vector<TextTree> more = lagTrees(lag);
    tree.children.insert(tree.children.end(), more.begin(), more.end());
    tree.write(std::cout, Agent::isOutputColoured());
  }
  return view.isEmpty() && lag.differences.empty() ? exitFailed : exitDone;
}

int answer(const WhyOptions& options, StateReading& reading, const Subject& subject) {
  const Shadow shadow(reading);
  if (const auto* const tunnel = std::get_if<Model::TunnelId>(&subject)) {
    return runWhyTunnel(options, reading, shadow, *tunnel);
  }
  if (const auto* const tep = std::get_if<Ipkit::IpGenPrefix>(&subject)) {
    return runWhyEndpoint(options, reading, shadow, *tep);
  }
  const auto tep = endpointOf(reading, shadow, std::get<Ipkit::IpGenAddr>(subject));
  if (!tep) {
    throw std::runtime_error(options.subject + ": no tunnel endpoint has this address");
  }
  return runWhyEndpoint(options, reading, shadow, *tep);
}

int runWhy(const WhyOptions& options) {
  const Subject subject = subjectOf(options.subject);
  StateReading reading(options.stateDirectory);
  const int status = answer(options, reading, subject);
  return std::max(status, toldDamage(reading.damages(), options.isJson));
}

}  // namespace

void addWhy(const Agent::Command& app, Action& action) {
  const Agent::Command command =
      app.command("why", "Explain why a tunnel is, or is not, in FIB and RIBs, or which tunnels an endpoint has");
  const auto options = std::make_shared<WhyOptions>();
  addShadowOptions(command, *options);
  command
      .option("TUNNEL|TEP", options->subject,
              "A tunnel, as ldpTunnel/5, or an endpoint, as 10.0.0.5/32 or an address in it")
      .required();
  command.onChosen([=, &action] { action = [=] { return runWhy(*options); }; });
}

}  // namespace Tools
