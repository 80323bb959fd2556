// ControlClient: asks the agent of a state directory over its control socket (docs/control.md). One connection a
// question; whoever does not answer in time is left alone.
#pragma once

#include <stdexcept>
#include <string>

#include "agent/JsonText.h"

namespace Tools {

// Nobody can be asked: no agent runs, we may not connect, or it does not answer. The text names the socket.
class AgentUnreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlClient {
 public:
  // seconds: for the whole of a question. Raises runtime_error when there is no such directory.
  explicit ControlClient(std::string stateDirectory, double seconds = 3);

  // The result, which has the method's form. Raises AgentUnreachable, for an order with the word that it may still be
  // carried out; ScenarioError for what the agent refuses as wrong; runtime_error for another
  // error that it answers, and for an answer that is none.
  Agent::OrderedJson ask(const std::string& method,
                         const Agent::OrderedJson& params = Agent::OrderedJson::object()) const;

 private:
  std::string exchange(const std::string& line, bool isOrder) const;

  const std::string stateDirectory_;
  const double seconds_;
};

}  // namespace Tools
