// The methods of the control socket: config.get, config.apply, trace.get, trace.set, stats.get (docs/control.md).
#pragma once

#include <string>

#include "agent/AgentConfig.h"
#include "agent/JsonRpc.h"

namespace Agent {

// What an agent lets others ask and change.
class ControlTarget {
 public:
  virtual const AgentConfig& config() const = 0;
  // Where it came from: the file, "default", or "control".
  virtual std::string configSource() const = 0;
  // False while tables cannot be read: RIBs that are configured anew are built from the tables alone.
  virtual bool isConfigurable() const = 0;
  // The RIBs follow in tasks.
  virtual void configIs(AgentConfig config, const std::string& source) = 0;
  virtual OrderedJson stats() const = 0;

 protected:
  ~ControlTarget() = default;
};

// The target outlives what is returned.
RpcMethods controlMethods(ControlTarget& target);

}  // namespace Agent
