#include "tools/Shadow.h"

#include <stdexcept>

#include "tools/InputDamage.h"
#include "tools/TableWalk.h"

namespace Tools {

Shadow::Shadow(StateReading& reading, const Agent::AgentState& tables) {
  for (const TableFile& file : reading.files()) {
    if (!file.mirror->trouble().empty()) {
      throw std::runtime_error(troubleOf(file));
    }
  }
  readTables(tables);
  readConfiguration(reading);
  host_.start();
  settle();
}

void Shadow::readTables(const Agent::AgentState& state) {
  Agent::forEachNamedTable([&](auto named) {
    using Table = typename decltype(named)::Table;
    Table& to = *host_.tables().table<Table>();
    walk(*state.tables().table<Table>(), {}, [&to](const auto& record) {
      to.entryIs(record);
      return true;
    });
  });
}

void Shadow::readConfiguration(StateReading& reading) {
  for (const auto& [id, line] : reading.status().ribs()) {
    host_.ribIds()->tunnelRibIdIs(line.name, id);
    host_.ribConfigs()->configIs(Agent::ribConfig(line.name, line.tables));
  }
  if (reading.status().ribs().empty()) {
    host_.ribConfigs()->configIs(Agent::defaultSystemConfig());
  }
  const auto declarations = Agent::statusTable<Agent::BgpLuDeclaration>(
      *reading.state().entityManager(), Agent::bgpLuDeclarationPath, Statehub::Access::read);
  Agent::BgpLuDeclaration declaration;
  if (Model::readSafely(declarations.get(), 0U, declaration)) {
    host_.bgpLuConvergence()->bgpLuConvergedIs(declaration.converged(), declaration.seqno());
  }
}

Sequences sequencesOf(StateReading& reading) {
  Sequences sequences;
  for (const TableFile& file : reading.files()) {
    sequences[file.name] = {file.mirror->reader().sequence(), file.mirror->reader().epoch()};
  }
  return sequences;
}

}  // namespace Tools
