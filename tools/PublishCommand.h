// The command "tunnelctl publish": writes protocol tables into a state directory as the protocols' own processes would.
//
// Each table is taken over as its publisher's successor does it: what stands there stays in force while the lines up to
// the next settle are written, then what they did not mention is deleted and the table is declared complete.
//
//   scenarios read through ─▶ all tables that they name locked ─▶ scenarios read again, line by line written ─▶ held
//
// So a wrong line or a table with another publisher is found before anything is touched. Standard input and pipes can
// be read only once: their tables are locked as they come.
//
// Lines that are the agent's business (rib, ribDelete, mount, unmount, advance) are passed over.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/ScenarioReader.h"
#include "tools/PublishedTable.h"

namespace Tools {

struct PublishOptions {
  std::string stateDirectory;
  std::vector<std::string> scenarios;   // "-" is standard input
  std::optional<Agent::TableId> table;  // nothing: all that the scenarios name
  bool holds = false;                   // stays alive, and the tables' writer, until a signal ends it
  bool isJson = false;
  bool steps = false;  // waits for a line on standard input at each settle
};

class PublishCommand {
 public:
  explicit PublishCommand(PublishOptions options) : options_(std::move(options)) {}

  // Raises ScenarioError: of files with no table touched, of what is read once only with what stands before that line
  // published. Raises what mounting raises: TableBusy for a table that has a publisher; and NoSpace, but a holder waits
  // for space.
  void run();

 private:
  struct Publishing {
    std::unique_ptr<PublishedTable> table;  // null: lost, to be made anew
    std::string trouble;                    // as it was reported; empty: all is well
  };

  void publish();
  void tellWhatIsPublished() const;
  std::set<Agent::TableId> tablesNamed() const;
  void play(const std::string& path);
  template <class Apply, class Settle>
  void read(std::istream& in, const std::string& name, Apply&& apply, Settle&& settle) const;
  std::optional<Agent::TableId> wantedTable(const Agent::ScenarioLine& line) const;
  PublishedTable& published(Agent::TableId id);
  void apply(Agent::TableId id, const Agent::ScenarioLine& line);
  void complete();
  void handleSettle(const std::string& place);
  template <class F>
  void withSpace(Agent::TableId id, F&& f);
  void hold();
  void mend(Agent::TableId id, Publishing& publishing);
  void makeAnew(Agent::TableId id, Publishing& publishing);
  bool canPlayAgain() const;
  void report(Agent::TableId id, const std::string& trouble);

  const PublishOptions options_;
  std::map<Agent::TableId, Publishing> published_;
};

}  // namespace Tools
