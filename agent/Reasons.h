// Reasons: why the agent is degraded. ServeCommand computes the list; the log, stats.get, the metrics and the status
// text of the service manager all print it.
//
//     table ldp: incomplete: publisher pid 4711 died; entries that it had not published again stay installed
//     object     problem                              consequence
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Agent {

struct Reason {
  std::string object;  // "table ldp", "FIB"; one reason for each
  std::string problem;
  std::string consequence;
  bool isLoggedElsewhere = false;  // where the event is logged that led to it

  std::string title() const { return object + ": " + problem; }
  std::string text() const { return title() + "; " + consequence; }
};

// "table ldp", "tables ldp, sr".
std::string tablesText(const std::vector<std::string>& tables);

class Reasons {
 public:
  // Replaces the list. Logs the reasons that are new, and those that no longer hold. Whether the list has changed.
  bool areNow(const std::vector<Reason>& now);
  // The texts, as shown last.
  const std::vector<std::string>& texts() const { return texts_; }
  // The first few texts in one line; empty: there are none.
  std::string summary() const;

 private:
  std::map<std::string, std::string> logged_;  // by object, the title of the reason that holds
  std::vector<std::string> texts_;
};

}  // namespace Agent
