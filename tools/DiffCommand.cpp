// The command "tunnelctl diff": what has changed between two state documents.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>

#include "agent/ScenarioReader.h"
#include "agent/StateDocument.h"
#include "tools/Commands.h"
#include "tools/Rows.h"
#include "tools/StateReading.h"

namespace Tools {
namespace {

struct DiffOptions {
  std::string before;
  std::string after;
  bool isJson = false;
  std::optional<std::uint64_t> limit;
};

// The members of a document by what they are part of and their key: {"fib", "ldpTunnel/5"}.
using Place = std::pair<std::string, std::string>;
using Members = std::map<Place, Agent::Json>;

std::string textIn(const Agent::Json& member, const char* key) { return member.at(key).get<std::string>(); }

Members membersOf(const Agent::Json& document) {
  Members members;
  const auto addList = [&members](const std::string& part, const Agent::Json& list, const char* key) {
    for (const Agent::Json& member : list) {
      members[{part, textIn(member, key)}] = member;
    }
  };
  for (const Agent::Json& rib : document.at("ribs")) {
    const std::string part = "rib " + textIn(rib, "name");
    members[{part, ""}] = {{"id", rib.at("id")}};
    addList(part, rib.at("entries"), "tep");
  }
  for (const auto& [type, entries] : document.at("protocolRibs").items()) {
    addList("protocolRib " + type, entries, "tep");
  }
  addList("fib", document.at("fib"), "tunnel");
  addList("encaps", document.at("encaps"), "id");
  for (const Agent::Json& tunnel : document.at("unprogrammable")) {
    members[{"unprogrammable", tunnel.get<std::string>()}] = true;
  }
  for (const auto& [rib, seqno] : document.at("convergence").items()) {
    members[{"convergence", rib}] = seqno;
  }
  return members;
}

// A file with a document, "-" for standard input, or a state directory, which is read now. status: exitFailed when not
// all of it can be read.
std::string documentText(const std::string& name, bool isJson, int& status) {
  std::error_code unknown;  // opening it then says why
  if (std::filesystem::is_directory(name, unknown)) {
    StateReading reading(name);
    reading.status();
    std::ostringstream text;
    Agent::writeStateDocument(text, reading.state());
    status = std::max(status, toldDamage(reading.damages(), isJson));
    return text.str();
  }
  std::ifstream file;
  if (name != "-") {
    file = Agent::openedFile(name);
  }
  std::istream& in = name == "-" ? std::cin : file;
  return {std::istreambuf_iterator<char>(in), {}};
}

Members readMembers(const std::string& name, bool isJson, int& status) {
  try {
    return membersOf(Agent::jsonFromText(documentText(name, isJson, status)));
  } catch (const Agent::InputError& error) {
    throw Agent::ScenarioError(name, error.what());
  } catch (const Agent::Json::exception& error) {
    throw Agent::ScenarioError(name, std::string("no state document: ") + error.what());
  }
}

// Without what the place says already.
std::string words(const Agent::Json* member) {
  if (member == nullptr || member->is_boolean()) {
    return "";
  }
  Agent::OrderedJson shown = *member;
  if (shown.is_object()) {
    for (const char* const key : {"tep", "tunnel", "id"}) {
      if (shown.size() > 1) {
        shown.erase(key);
      }
    }
  }
  return Agent::textOf(shown);
}

class Difference {
 public:
  explicit Difference(const DiffOptions& options)
      : rows_(std::cout, options.isJson, "changes", {"", "part", "key", "what"}, options.limit) {}

  // null: there is none.
  void tell(const Place& place, const Agent::Json* before, const Agent::Json* after) {
    isAny_ = true;
    const char* const change = before == nullptr ? "added" : after == nullptr ? "removed" : "changed";
    const auto cells = [&]() -> Cells {
      const std::string what = before == nullptr  ? words(after)
                               : after == nullptr ? words(before)
                                                  : words(before) + " -> " + words(after);
      return {before == nullptr  ? "+"
              : after == nullptr ? "-"
                                 : "~",
              Agent::printable(place.first), place.second, what};
    };
    isFull_ = !rows_.add(place.second, cells, [&] {
      OrderedJson json = {{"change", change}, {"part", place.first}, {"key", place.second}};
      if (before != nullptr) {
        json["before"] = *before;
      }
      if (after != nullptr) {
        json["after"] = *after;
      }
      return json;
    });
  }
  bool isFull() const { return isFull_; }
  int end() {
    rows_.end();
    return isAny_ ? exitFailed : exitDone;
  }

 private:
  Rows rows_;
  bool isAny_ = false;
  bool isFull_ = false;
};

int diff(const DiffOptions& options) {
  if (options.before == "-" && options.after == "-") {
    throw Agent::InputError("BEFORE and AFTER", "both are standard input");
  }
  int status = exitDone;
  const Members before = readMembers(options.before, options.isJson, status);
  const Members after = readMembers(options.after, options.isJson, status);
  Difference difference(options);
  auto left = before.begin();
  auto right = after.begin();
  while (!difference.isFull() && (left != before.end() || right != after.end())) {
    if (right == after.end() || (left != before.end() && left->first < right->first)) {
      difference.tell(left->first, &left->second, nullptr);
      ++left;
    } else if (left == before.end() || right->first < left->first) {
      difference.tell(right->first, nullptr, &right->second);
      ++right;
    } else {
      if (left->second != right->second) {
        difference.tell(left->first, &left->second, &right->second);
      }
      ++left;
      ++right;
    }
  }
  return std::max(status, difference.end());
}

}  // namespace

void addDiff(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("diff", "Compare two state documents; exit status 1 when they differ");
  const auto options = std::make_shared<DiffOptions>();
  command.option("BEFORE", options->before, "A state document, - for standard input, or a state directory").required();
  command.option("AFTER", options->after, "The same").required();
  command.flag("--json", options->isJson, "Print one JSON document");
  addLimit(command, options->limit, "At most N changes");
  command.onChosen([=, &action] { action = [options] { return diff(*options); }; });
}

}  // namespace Tools
