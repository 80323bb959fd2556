// "metrics": a sample in the text form that Prometheus scrapes, or as JSON.

#include <iostream>
#include <utility>

#include "tools/AgentSample.h"

namespace Tools {
namespace {

using Agent::OrderedJson;

using Labels = std::vector<std::pair<const char*, std::string>>;

std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : Agent::printable(value, 300)) {
    text += c == '\\' || c == '"' ? std::string{'\\', c} : std::string{c};
  }
  return text;
}

std::string numberText(const OrderedJson& value) {
  return value.is_boolean() ? (value.get<bool>() ? "1" : "0") : value.dump();
}

// One metric: what it is, then its values.
class Family {
 public:
  Family(std::string name, const char* type, const char* help) : name_(std::move(name)) {
    std::cout << "# HELP " << name_ << ' ' << help << "\n# TYPE " << name_ << ' ' << type << '\n';
  }

  void value(const OrderedJson& value, const Labels& labels = {}, const char* suffix = "") const {
    std::cout << name_ << suffix;
    const char* separator = "{";
    for (const auto& [key, text] : labels) {
      std::cout << std::exchange(separator, ",") << key << "=\"" << escaped(text) << '"';
    }
    std::cout << (labels.empty() ? " " : "} ") << numberText(value) << '\n';
  }

 private:
  const std::string name_;
};

void writeHistogram(const std::string& name, const char* help, const OrderedJson& histogram) {
  const Family family(name, "histogram", help);
  for (const OrderedJson& bucket : histogram["buckets"]) {
    family.value(bucket["count"], {{"le", bucket["seconds"].dump()}}, "_bucket");
  }
  family.value(histogram["count"], {{"le", "+Inf"}}, "_bucket");
  family.value(histogram["sum"], {}, "_sum");
  family.value(histogram["count"], {}, "_count");
}

void writeAgent(const OrderedJson& stats) {
  Family("tunnel_agent_info", "gauge", "The agent's version.")
      .value(1, {{"version", stats["version"].get<std::string>()}});
  Family("tunnel_agent_ready", "gauge", "Whether RIBs and FIB follow the tables, and nothing is degraded.")
      .value(stats["state"] == "ready");
  Family("tunnel_agent_uptime_seconds", "gauge", "Since the agent's start.").value(stats["uptime"]);
  Family("tunnel_agent_resident_bytes", "gauge", "The agent's memory, shared tables included.")
      .value(stats["residentBytes"]);
  Family("tunnel_agent_reviews_total", "counter", "Tunnels reviewed, by the FIB and by each RIB.")
      .value(stats["reviews"]);
  const OrderedJson& backlog = stats["backlog"];
  const Family waiting("tunnel_agent_backlog", "gauge",
                       "What waits: changes unread in the tables, tunnels for review by the FIB or a RIB.");
  waiting.value(backlog["unreadChanges"], {{"of", "tables"}});
  waiting.value(backlog["fib"], {{"of", "fib"}});
  for (const auto& [rib, count] : backlog["ribs"].items()) {
    waiting.value(count, {{"of", "rib"}, {"rib", rib}});
  }
  Family("tunnel_agent_deferred", "gauge", "Tunnels whose review waits for a next level.")
      .value(backlog["fibDeferred"]);
  Family("tunnel_agent_held_up", "gauge", "Tunnels and RIB entries that wait for space or for a readable table.")
      .value(backlog["heldUp"]);
  Family("tunnel_agent_degraded", "gauge", "How many reasons there are why the agent is degraded.")
      .value(stats["degraded"].size());
  if (!stats["degraded"].empty()) {
    const Family reasons("tunnel_agent_degraded_reason", "gauge", "Each of these reasons, as the log has it.");
    for (const OrderedJson& reason : stats["degraded"]) {
      reasons.value(1, {{"reason", reason.get<std::string>()}});
    }
  }
  const OrderedJson& scrub = stats["scrub"];
  Family("tunnel_agent_damage_found_total", "counter", "Damage found in RIBs, FIB and status tables by the scrubber.")
      .value(scrub["found"]);
  Family("tunnel_agent_damage_repaired_total", "counter", "Damage that the scrubber has repaired.")
      .value(scrub["repaired"]);
  Family("tunnel_agent_scrub_passes_total", "counter", "Passes of the scrubber over all tables.")
      .value(scrub["passes"]);
  Family("tunnel_agent_scrub_visited_total", "counter", "Entries that the scrubber has visited.")
      .value(scrub["visited"]);
  Family("tunnel_agent_scrub_last_pass_age_seconds", "gauge", "Since the end of the last pass; -1: none has ended.")
      .value(scrub["lastPassAge"]);
  writeHistogram("tunnel_agent_slice_seconds", "How long tasks kept the thread.", stats["slices"]);
  writeHistogram("tunnel_agent_publish_to_fib_seconds",
                 "From a table change found by the agent to the tunnel's FIB entry written.", stats["publishToFib"]);
  if (const OrderedJson& control = stats["control"]; control.is_object()) {
    Family("tunnel_agent_control_requests_total", "counter", "Control requests answered.").value(control["requests"]);
    Family("tunnel_agent_control_refused_total", "counter", "Control clients beyond the limit or out of form.")
        .value(control["refused"]);
    Family("tunnel_agent_control_dropped_total", "counter", "Control clients that were too slow.")
        .value(control["dropped"]);
  }
}

template <class ValueOf>
void writeTables(const AgentSample& sample, const char* name, const char* type, const char* help, ValueOf valueOf) {
  const Family family(name, type, help);
  for (const TableSample& table : sample.tables) {
    family.value(valueOf(table), {{"table", table.name}});
  }
}

void writeText(const AgentSample& sample) {
  Family("tunnel_agent_up", "gauge", "Whether an agent answers.").value(sample.isUp());
  if (sample.isUp()) {
    writeAgent(sample.stats);
  } else {
    std::cout << "# " << Agent::printable(sample.trouble, 300) << '\n';
  }
  writeTables(sample, "tunnel_table_entries", "gauge", "Entries of a table.",
              [](const TableSample& table) { return table.entries; });
  writeTables(sample, "tunnel_table_changes_total", "counter", "A table's sequence number.",
              [](const TableSample& table) { return table.sequence; });
  writeTables(sample, "tunnel_table_complete", "gauge", "Whether a table is there and its writer calls it complete.",
              [](const TableSample& table) { return table.standing == "complete"; });
  writeTables(sample, "tunnel_table_writer_alive", "gauge", "Whether a process writes the table.",
              [](const TableSample& table) { return table.isWriterAlive; });
}

void writeJson(const AgentSample& sample) {
  OrderedJson tables = OrderedJson::array();
  for (const TableSample& table : sample.tables) {
    tables.push_back({{"table", table.name},
                      {"entries", table.entries},
                      {"sequence", table.sequence},
                      {"state", table.standing},
                      {"isWriterAlive", table.isWriterAlive}});
  }
  OrderedJson document = {{"up", sample.isUp()}, {"agent", sample.stats}, {"tables", std::move(tables)}};
  if (!sample.isUp()) {
    document["note"] = sample.trouble;
  }
  std::cout << document.dump(1) << '\n';
}

}  // namespace

void addMetrics(const Agent::Command& app, Action& action) {
  const Agent::Command command =
      app.command("metrics", "Counters and histograms as Prometheus text; of the tables alone without an agent");
  command.onChosen([&action, options = addControlOptions(command)] {
    action = [options] {
      const AgentSample sample(*options);
      options->isJson ? writeJson(sample) : writeText(sample);
      return toldDamage(sample.damages, options->isJson);
    };
  });
}

}  // namespace Tools
