// EntryDraft: an entry of a protocol tunnel table as a scenario writes it, for all twelve tables. Which table takes
// which fields, and which it must be given, is the table of rows in EntryDraft.cpp; a field that a table does not take
// keeps its default here and is not looked at.
#pragma once

#include <optional>

#include "agent/JsonField.h"
#include "agent/ProtocolTables.h"

namespace Agent {

using LabelStack = Zol::PodArray<Ipkit::MplsLabelOperation::Label, Ipkit::MplsLabelOperation::stackSizeMax,
                                 Ipkit::MplsLabelOperation::stackSizeMax>;

struct ViaDraft {
  Ipkit::IpGenAddr nextHop;
  Ipkit::IntfId intf;
  LabelStack labels;  // top first
  Ipkit::MplsLabelOperation::Op op = Ipkit::MplsLabelOperation::Op::push;
};

struct EntryDraft {
  std::uint64_t index = 0;
  Ipkit::IpGenPrefix tep;
  std::uint64_t tieBreaker = 0;
  std::optional<Model::TunnelEntryPref> pref;  // nothing: the type's default
  Model::MplsViaArray vias;
  Model::MplsViaArray backupVias;
  LabelStack labels;  // top first
  Ipkit::MplsLabelOperation::Op op = Ipkit::MplsLabelOperation::Op::push;
  Model::Contribution contribution = Model::Contribution::contributing;
  Model::TunnelMetrics metrics;
  std::uint32_t nexthopGroupId = 0;
  Model::IpsecVtiTunnelInfo tunnelInfo;  // has the fields of all three kinds
};

// Reads an ENTRY of the table; raises InputError.
EntryDraft entryDraft(TableId table, const JsonField& entry);

// Writes the entry to its table, under the id that its index stands for there.
void putEntry(const ProtocolTables& tables, TableId table, const EntryDraft& entry);
bool hasEntry(const ProtocolTables& tables, TableId table, std::uint64_t index);
// Requires: hasEntry(...).
void deleteEntry(const ProtocolTables& tables, TableId table, std::uint64_t index);

}  // namespace Agent
