#include "tools/AgentSample.h"

#include "tools/ControlClient.h"

namespace Tools {

AgentSample::AgentSample(const ControlOptions& options) {
  StateReading reading(options.stateDirectory);
  try {
    stats = ControlClient(options.stateDirectory, options.seconds).ask("stats.get");
  } catch (const AgentUnreachable& error) {
    trouble = error.what();
  }
  time = std::chrono::steady_clock::now();
  for (const TableFile& file : reading.files()) {
    const Memtab::MirrorStore& mirror = *file.mirror;
    TableSample table{file.name, standingOf(mirror)};
    if (mirror.isBound()) {
      table.entries = mirror.entries(0);
      table.sequence = mirror.reader().sequence();
      table.isWriterAlive = mirror.isOwned();
    }
    tables.push_back(std::move(table));
  }
  damages = reading.damages();
}

}  // namespace Tools
