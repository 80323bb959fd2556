#include "agent/RunCommand.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>
#include <utility>

#include "agent/ExplanationText.h"
#include "agent/Summary.h"
#include "agent/Terminal.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "runtime/Quor/UnitSlicePolicy.h"

namespace Agent {
namespace {

// In simulated time no time passes inside a slice, so without a number of units a task runs to its end: a run and its
// result are the same on every machine.
std::unique_ptr<Quor::SlicePolicy> slicePolicy(const RunOptions& options, const Quor::TimeSource& time) {
  if (options.yieldEvery) {
    return std::make_unique<Quor::UnitSlicePolicy>(*options.yieldEvery);
  }
  return std::make_unique<Quor::TimeSlicePolicy>(time);
}

std::string systemError() { return std::strerror(errno); }

template <class Write>
void writeFile(const std::string& path, Write&& write) {
  std::ofstream out(path);
  if (out) {
    write(out);
    out.close();
  }
  if (!out) {
    throw OutputError(path + ": cannot be written: " + systemError());
  }
}

}  // namespace

RunCommand::RunCommand(RunOptions options)
    : options_(std::move(options)),
      talks_(!options_.wantsState || !options_.stateFile.empty()),
      isColoured_(isOutputColoured()),
      slicePolicy_(slicePolicy(options_, time_)),
      host_(time_, *slicePolicy_),
      player_(host_, time_) {
  if (talks_) {
    changes_ = std::make_unique<ChangeReport>(host_, options_.filter);
  }
}

void RunCommand::run() {
  if (!options_.checkpointDirectory.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options_.checkpointDirectory, error);
    if (error) {
      throw OutputError(options_.checkpointDirectory + ": cannot be created: " + error.message());
    }
  }
  for (const std::string& path : options_.scenarios) {
    playFile(path);
  }
  writeResult();
}

void RunCommand::playFile(const std::string& path) {
  if (path == "-") {
    play(std::cin, "<stdin>", "stdin", 0);
    return;
  }
  std::ifstream in = openedFile(path);
  std::error_code none;
  const auto size = std::filesystem::file_size(path, none);
  play(in, path, std::filesystem::path(path).stem().string(), none ? 0 : size);
}

void RunCommand::play(std::istream& in, const std::string& name, const std::string& stem, std::uint64_t size) {
  ScenarioReader reader(in, name);
  Progress progress(name, size);
  while (const std::optional<ScenarioLine> line = reader.next()) {
    reader.naming([&] { player_.apply(*line); });
    handleApplied(*line, reader, stem);
    progress.doneIs(reader.bytesRead());
  }
  player_.settle();
  tellChanges(name + ": end");
}

void RunCommand::handleApplied(const ScenarioLine& line, const ScenarioReader& reader, const std::string& stem) {
  const std::string number = std::to_string(reader.lineNumber());
  const std::string place = reader.name() + ":" + number + ": ";
  if (std::holds_alternative<SettleLine>(line)) {
    tellChanges(place + "settle");
    if (options_.checkpointsEachSettle) {
      writeCheckpoint(options_.scenarios.size() > 1 ? stem + "-" + number : number);
    }
  } else if (const auto* const advance = std::get_if<AdvanceLine>(&line)) {
    std::ostringstream title;
    title << place << "advance " << advance->seconds << " s";
    tellChanges(title.str());
  } else if (const auto* const checkpoint = std::get_if<CheckpointLine>(&line)) {
    tellChanges(place + "checkpoint " + checkpoint->name);
    if (!options_.checkpointDirectory.empty()) {
      writeCheckpoint(checkpoint->name);
    }
  }
}

void RunCommand::tellChanges(const std::string& title) {
  if (changes_) {
    changes_->write(std::cout, title, isColoured_);
  }
}

void RunCommand::writeCheckpoint(const std::string& name) {
  writeFile((std::filesystem::path(options_.checkpointDirectory) / (name + ".json")).string(),
            [this](std::ostream& out) { writeStateDocument(out, host_, options_.filter); });
}

// What the options name must be there at the end; only --why also explains what is not.
void RunCommand::refuseAbsent() const {
  if (options_.filter.rib && !host_.ribIds()->tunnelRibId(*options_.filter.rib)) {
    throw InputError("--rib", "no RIB '" + printable(*options_.filter.rib) + "' at the end");
  }
  for (const Model::TunnelId& tunnel : options_.waysOf) {
    if (host_.fibSm()->finding(tunnel).result.tunnelTableEntryDeleted()) {
      throw InputError("--tunnel", "no table entry of " + Zol::stringOf(tunnel) + " at the end");
    }
  }
}

void RunCommand::writeExplanations() const {
  const auto explained = [this](const Model::TunnelId& tunnel, Follow follow) {
    return explain(*host_.fibSm(), *host_.ribConfigDirSm(), *host_.ribIds(), tunnel, follow);
  };
  for (const Model::TunnelId& tunnel : options_.waysOf) {
    writeWay(std::cout, explained(tunnel, Follow::ways), isColoured_);
  }
  for (const Model::TunnelId& tunnel : options_.askedWhy) {
    writeWhy(std::cout, explained(tunnel, Follow::causes), isColoured_);
  }
}

void RunCommand::writeResult() {
  refuseAbsent();
  if (talks_) {
    writeSummary(std::cout, host_, isColoured_);
    writeExplanations();
  }
  if (options_.wantsState && options_.stateFile.empty()) {
    writeStateDocument(std::cout, host_, options_.filter);
  } else if (options_.wantsState) {
    writeFile(options_.stateFile, [this](std::ostream& out) { writeStateDocument(out, host_, options_.filter); });
  }
  if (const std::string trouble = outputTrouble(); !trouble.empty()) {
    throw OutputError(trouble);
  }
}

}  // namespace Agent
