// The command "tunnelctl publish": writes protocol tables into a state directory as the protocols' own processes would.
//
// Each table is taken over as its publisher's successor does it: what stands there stays in force while the lines up to
// the next settle are written, then what they did not mention is deleted and the table is declared complete.
//
// Lines that are the agent's business (rib, ribDelete, mount, unmount, advance) are passed over.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/AgentStatus.h"
#include "agent/ProtocolTables.h"
#include "agent/ScenarioReader.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;

struct PublishOptions {
  std::string stateDirectory;
  std::vector<std::string> scenarios;   // "-" is standard input
  std::optional<Agent::TableId> table;  // nothing: all that the scenarios name
  bool holds = false;                   // stays alive, and the tables' writer, until a signal ends it
  bool steps = false;                   // waits for a line on standard input at each settle
};

class PublishCommand {
 public:
  explicit PublishCommand(PublishOptions options);

  // Raises ScenarioError, with what stands before that line published, and what mounting raises: TableBusy for a table
  // that has a publisher.
  void run();

 private:
  // One table of this publisher.
  struct Published {
    std::set<Model::TunnelId> stale;  // what an earlier run left and no line has mentioned yet
    bool isComplete = false;
  };

  void playFile(const std::string& path);
  void play(std::istream& in, const std::string& name);
  void apply(const Agent::ScenarioLine& line);
  bool isWanted(Agent::TableId table) const { return options_.table.value_or(table) == table; }
  Published& published(Agent::TableId table);
  void put(const Agent::PutLine& line);
  void del(const Agent::DeleteLine& line);
  void declare(const Agent::ConvergedLine& line);
  void complete();
  void handleSettle(const std::string& place);
  void hold() const;

  const PublishOptions options_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  std::map<Agent::TableId, Published> published_;
  std::optional<Agent::ProtocolTables> tables_;  // those in published_
  Zol::Ptr<Agent::BgpLuDeclarationTable> declaration_;
};

}  // namespace Tools
