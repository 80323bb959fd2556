// ConfigTask: makes the RIBs of an agent as a new configuration wants them, one RIB a unit of work, since a new RIB
// looks at all tables when it begins. RIBs whose configuration stays are not touched.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "agent/AgentConfig.h"
#include "runtime/Quor/Task.h"

namespace Agent {

class ConfigTask final : private Quor::Task {
 public:
  // done is called when all RIBs are as they were wanted last. The host outlives this.
  ConfigTask(AgentHost& host, std::function<void()> done);

  // Replaces what was wanted before, done or not.
  void configIs(AgentConfig config);
  // Does what is left now.
  void finish();

 private:
  void run() override;
  void doOne();

  AgentHost& host_;
  const std::function<void()> done_;
  AgentConfig config_;
  std::set<std::string> left_;  // names of RIBs that may have to change
};

}  // namespace Agent
