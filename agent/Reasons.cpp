#include "agent/Reasons.h"

#include <algorithm>
#include <utility>

#include "agent/Log.h"

namespace Agent {
namespace {

constexpr std::size_t summaryMax = 5;

}  // namespace

std::string tablesText(const std::vector<std::string>& tables) {
  std::string names;
  for (const std::string& table : tables) {
    names += (names.empty() ? "" : ", ") + table;
  }
  return (tables.size() == 1 ? "table " : "tables ") + names;
}

bool Reasons::areNow(const std::vector<Reason>& now) {
  std::vector<std::string> texts;
  for (const Reason& reason : now) {
    texts.push_back(reason.text());
  }
  if (texts == texts_) {
    return false;
  }
  for (const Reason& reason : now) {
    if (!reason.isLoggedElsewhere && std::exchange(logged_[reason.object], reason.title()) != reason.title()) {
      logBounded(LogLevel::warning, reason.object, reason.text());
    }
  }
  std::erase_if(logged_, [&now](const auto& each) {
    const bool holds = std::any_of(now.begin(), now.end(), [&](const Reason& it) { return it.object == each.first; });
    if (!holds) {
      logBounded(LogLevel::notice, each.first, "resolved: " + each.second);
    }
    return !holds;
  });
  texts_ = std::move(texts);
  return true;
}

std::string Reasons::summary() const {
  std::string all;
  for (std::size_t i = 0; i < std::min(texts_.size(), summaryMax); ++i) {
    all += (i == 0 ? "" : "; ") + texts_[i];
  }
  return all + (texts_.size() > summaryMax ? "; and " + std::to_string(texts_.size() - summaryMax) + " more" : "");
}

}  // namespace Agent
