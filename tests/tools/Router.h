// A router in a scratch state directory: publishers and the agent as processes, and what they published.
#pragma once

#include <gtest/gtest.h>

#include "agent/AgentStatus.h"
#include "agent/StateDocument.h"
#include "tests/support/Process.h"

namespace Tools {

using Agent::OrderedJson;

// Encapsulations under no numbers: which index one got depends on the order of reviews.
inline OrderedJson withoutEncapIndexes(OrderedJson document) {
  std::vector<std::string> encaps;
  for (OrderedJson& encap : document["encaps"]) {
    const std::string id = encap["id"];
    encap["id"] = id.substr(0, id.find('/'));
    encaps.push_back(encap.dump());
  }
  std::sort(encaps.begin(), encaps.end());
  document["encaps"] = encaps;
  return document;
}

class Router {
 public:
  std::string stateDirectory() const { return scratch_ / "state"; }
  const Support::ScratchDirectory& scratch() const { return scratch_; }
  std::string agentLog() const { return Support::contentsOf(scratch_ / "agent.log"); }

  Support::Process serve(std::vector<std::string> options = {}) const {
    return start(TUNNEL_AGENT_PATH, "serve", std::move(options), "agent.log");
  }
  // Another agent, with a log of its own.
  Support::Process serveAs(const std::string& log) const { return start(TUNNEL_AGENT_PATH, "serve", {}, log); }
  Support::Process publish(std::vector<std::string> options, const std::string& log = "publish.log") const {
    return start(TUNNELCTL_PATH, "publish", std::move(options), log);
  }
  // Publishes to the end; the exit status.
  int publishAll(std::vector<std::string> options) const { return publish(std::move(options)).wait(); }

  // What a command of tunnelctl on the state directory prints, standard error included, and its exit status.
  struct Answer {
    int status;
    std::string text;
    OrderedJson json() const { return OrderedJson::parse(text); }
  };
  Answer ask(std::vector<std::string> words) const {
    static int number = 0;
    words.insert(words.begin(), TUNNELCTL_PATH);
    words.insert(words.end(), {"--state-dir", stateDirectory()});
    Support::Process process(words, scratch_ / ("answer" + std::to_string(++number)));
    const int status = process.wait();
    return {status, process.output()};
  }

  // A reader of all that is published.
  struct Reading {
    explicit Reading(const std::string& directory)
        : state(Zol::make<Statehub::EntityManager>(directory), Statehub::Access::read), status(state) {}
    Agent::AgentState state;
    Agent::StatusReader status;
  };
  OrderedJson document() const {
    const Reading reading(stateDirectory());
    return withoutEncapIndexes(Agent::stateDocument(reading.state));
  }
  bool becomes(const OrderedJson& expected, double seconds = 20) const {
    return Support::becomes([&] { return document() == expected; }, seconds);
  }
  // Sequence numbers of all that the agent writes, but for convergence: a restarted RIB says anew how far it has come.
  std::map<std::string, std::uint64_t> sequences() const {
    const Reading reading(stateDirectory());
    std::map<std::string, std::uint64_t> all = {{"fib", reading.state.fib()->entry().collectionControl().sequence()}};
    for (const auto& [name, id] : reading.state.ribIds()->tunnelRibNames()) {
      all["rib " + name] = reading.state.rib(id)->collectionControl().sequence();
    }
    for (const auto& [type, wrapper] : reading.state.protocolRibs()->protocolTunnelRib()) {
      all[Tunnel::TunnelTable::stringValue(type)] = wrapper->tunnelRib()->collectionControl().sequence();
    }
    for (const char* const path : {Agent::ribStatusPath, Agent::unprogrammablePath}) {
      all[path] = reading.state.entityManager()->mirror(path)->reader().sequence();
    }
    return all;
  }

 private:
  Support::Process start(const std::string& program, const std::string& command, std::vector<std::string> options,
                         const std::string& log) const {
    std::vector<std::string> words = {program, command, "--state-dir", stateDirectory()};
    words.insert(words.end(), options.begin(), options.end());
    return Support::Process(words, scratch_ / log);
  }

  Support::ScratchDirectory scratch_;
};

}  // namespace Tools
