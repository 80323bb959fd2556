// Two lists say all about the fields of entries: fieldRows for an entry's own, viaRows for those of its vias. A row has
// the field's key, the tables that take it, those that require it, and how it is read into the draft. A new field is a
// row and a member of the draft; a new table is a bit in the rows of its fields.
//
// The second half takes a draft to the record of a table, which takes from the draft what it has a field for.

#include "agent/EntryDraft.h"

#include <algorithm>
#include <string>

namespace Agent {
namespace {

using Op = Ipkit::MplsLabelOperation::Op;

// A set of tables.
template <class... Id>
constexpr unsigned tables(Id... id) {
  return ((1U << static_cast<unsigned>(id)) | ...);
}
constexpr bool isIn(unsigned set, TableId table) { return (set & tables(table)) != 0; }

constexpr unsigned none = 0;
constexpr unsigned every = ~0U;
constexpr unsigned bgpLu = tables(TableId::bgpLu);
constexpr unsigned bgpLuPush = tables(TableId::bgpLuPush);
constexpr unsigned igp = tables(TableId::ldp, TableId::sr);
constexpr unsigned statics = tables(TableId::staticTable);
constexpr unsigned nexthopGroup = tables(TableId::nexthopGroup);
constexpr unsigned tiLfa = tables(TableId::tiLfa);
constexpr unsigned ipsec = tables(TableId::ipsecVtiTunnelInterface, TableId::ipsecGreTunnelInterface);
constexpr unsigned interfaces = ipsec | tables(TableId::greTunnelInterface);
constexpr unsigned inRibs = bgpLu | igp | statics | nexthopGroup;

template <class Draft>
struct FieldRow {
  const char* key;
  unsigned takenBy;
  unsigned requiredBy;
  void (*read)(TableId table, const JsonField& in, Draft& draft);
};

template <class Draft, std::size_t count>
void readFields(const FieldRow<Draft> (&rows)[count], TableId table, const JsonField& in, Draft& draft) {
  in.forEachMember([&](const std::string& key, const JsonField& field) {
    const bool isTaken = std::any_of(std::begin(rows), std::end(rows), [&](const FieldRow<Draft>& row) {
      return key == row.key && isIn(row.takenBy, table);
    });
    field.require(isTaken, "unknown key");
  });
  for (const FieldRow<Draft>& row : rows) {
    if (isIn(row.takenBy, table) && (in.has(row.key) || isIn(row.requiredBy, table))) {
      const JsonField field = in.member(row.key);
      row.read(table, field, draft);
    }
  }
}

template <class T>
struct Word {
  const char* text;
  T value;
};
constexpr Word<Op> opWords[] = {{"push", Op::push}, {"swap", Op::swap}, {"pop", Op::pop}};
constexpr Word<Model::Contribution> contributionWords[] = {{"contributing", Model::Contribution::contributing},
                                                           {"notContributing", Model::Contribution::notContributing}};

template <class T, std::size_t count>
T readWord(const Word<T> (&words)[count], const JsonField& in) {
  const std::string& text = in.text();
  const auto* const word =
      std::find_if(std::begin(words), std::end(words), [&](auto& each) { return text == each.text; });
  if (word == std::end(words)) {
    std::string known;
    for (const Word<T>& each : words) {
      known += (known.empty() ? "" : ", ") + std::string(each.text);
    }
    in.fail("'" + printable(text) + "' is none of " + known);
  }
  return word->value;
}

// An unsigned number of the member's width.
template <class T>
void readNumber(const JsonField& in, T& number, std::uint64_t max = static_cast<T>(-1)) {
  number = static_cast<T>(in.integer(max));
}

LabelStack readLabels(const JsonField& in) {
  LabelStack labels;
  in.forEachElement(LabelStack::maxSize(), "labels", [&](const JsonField& label) {
    labels.append(static_cast<Ipkit::MplsLabelOperation::Label>(label.integer(Ipkit::MplsLabelOperation::labelMax)));
  });
  return labels;
}

Ipkit::IntfId readIntf(const JsonField& in) {
  const auto intf = in.valueOf<Ipkit::IntfId>();
  in.require(intf.isLegal(), "no interface");
  return intf;
}

Model::TunnelMetrics readMetrics(const JsonField& in) {
  std::uint32_t numbers[4] = {};
  std::size_t count = 0;
  in.forEachElement(std::size(numbers), "metrics",
                    [&](const JsonField& metric) { readNumber(metric, numbers[count++]); });
  in.require(count == std::size(numbers), "not four numbers [m, m2, p, p2]");
  Model::TunnelMetrics metrics;
  metrics.mIs(numbers[0]);
  metrics.m2Is(numbers[1]);
  metrics.pIs(numbers[2]);
  metrics.p2Is(numbers[3]);
  return metrics;
}

constexpr unsigned mplsVias = ~(bgpLu | bgpLuPush | nexthopGroup | interfaces);

// clang-format off
constexpr FieldRow<ViaDraft> viaRows[] = {
  // key            taken by     required by
  {"nextHop",       every,       none,      [](TableId, auto& in, auto& v) { v.nextHop = in.template valueOf<Ipkit::IpGenAddr>(); }},
  {"intf",          every,       every,     [](TableId, auto& in, auto& v) { v.intf = readIntf(in); }},
  {"labels",        mplsVias,    none,      [](TableId, auto& in, auto& v) { v.labels = readLabels(in); }},
  {"op",            statics,     none,      [](TableId, auto& in, auto& v) { v.op = readWord(opWords, in); }},
};
// clang-format on

Ipkit::MplsLabelOperation operation(Op op, const LabelStack& topFirst) {
  return {op, std::span(topFirst.begin(), topFirst.size())};
}

Model::MplsViaArray readVias(TableId table, const JsonField& in) {
  Model::MplsViaArray vias;
  in.forEachElement(Model::viaCountMax, "vias", [&](const JsonField& element) {
    ViaDraft via;
    readFields(viaRows, table, element, via);
    vias.append(Model::MplsVia(Model::Via(via.nextHop, via.intf), operation(via.op, via.labels)));
  });
  return vias;
}

void readDestination(const JsonField& in, EntryDraft& e) {
  e.tunnelInfo.destinationIs(in.valueOf<Ipkit::IpGenAddr>());
  in.require(e.tunnelInfo.destination().family() == e.tunnelInfo.source().family(),
             "not of the source's address family");
}

constexpr unsigned withVias = every & ~nexthopGroup;

// clang-format off
constexpr FieldRow<EntryDraft> fieldRows[] = {
  // key            taken by           required by
  {"index",         every,             every,        [](TableId, auto& in, auto& e) { readNumber(in, e.index, Model::TunnelId::maxIndex); }},
  {"tep",           every,             inRibs,       [](TableId, auto& in, auto& e) { e.tep = in.template valueOf<Ipkit::IpGenPrefix>(); }},
  {"tieBreaker",    every,             none,         [](TableId, auto& in, auto& e) { readNumber(in, e.tieBreaker); }},
  {"pref",          every,             none,         [](TableId, auto& in, auto& e) { readNumber(in, e.pref.emplace()); }},
  {"vias",          withVias,          withVias,     [](TableId table, auto& in, auto& e) { e.vias = readVias(table, in); }},
  {"backupVias",    statics | tiLfa,   none,         [](TableId table, auto& in, auto& e) { e.backupVias = readVias(table, in); }},
  {"labels",        bgpLu | bgpLuPush, none,         [](TableId, auto& in, auto& e) { e.labels = readLabels(in); }},
  {"op",            bgpLuPush,         none,         [](TableId, auto& in, auto& e) { e.op = readWord(opWords, in); }},
  {"contribution",  bgpLu,             none,         [](TableId, auto& in, auto& e) { e.contribution = readWord(contributionWords, in); }},
  {"metrics",       bgpLu | igp,       none,         [](TableId, auto& in, auto& e) { e.metrics = readMetrics(in); }},
  {"nexthopGroupId", nexthopGroup,     nexthopGroup, [](TableId, auto& in, auto& e) { readNumber(in, e.nexthopGroupId); }},
  {"source",        interfaces,        interfaces,   [](TableId, auto& in, auto& e) { e.tunnelInfo.sourceIs(in.template valueOf<Ipkit::IpGenAddr>()); }},
  {"destination",   interfaces,        interfaces,   [](TableId, auto& in, auto& e) { readDestination(in, e); }},
  {"tos",           interfaces,        none,         [](TableId, auto& in, auto& e) { readNumber(in, e.tunnelInfo.tosRef()); }},
  {"ttl",           interfaces,        none,         [](TableId, auto& in, auto& e) { readNumber(in, e.tunnelInfo.ttlRef()); }},
  {"spi",           ipsec,             ipsec,        [](TableId, auto& in, auto& e) { readNumber(in, e.tunnelInfo.spiRef()); }},
};
// clang-format on

template <class Vias>
Vias viasOf(const Model::MplsViaArray& drafts) {
  Vias vias;
  for (const Model::MplsVia& via : drafts) {
    vias.append(via);
  }
  return vias;
}

// The record takes what it has a field for.
template <class Entry>
Entry entryOf(const EntryDraft& draft, Model::TunnelType type) {
  Entry entry(Model::TunnelId(type, draft.index), draft.pref.value_or(Model::getDefaultPrefForType(type)));
  entry.tepIs(draft.tep);
  entry.tieBreakerIs(draft.tieBreaker);
  if constexpr (requires { entry.via(); }) {
    entry.viaIs(viasOf<std::remove_cvref_t<decltype(entry.via())>>(draft.vias));
  }
  if constexpr (requires { entry.backupVia(); }) {
    entry.backupViaIs(draft.backupVias);
  }
  if constexpr (requires { entry.labelOp(); }) {
    entry.labelOpIs(operation(draft.op, draft.labels));
  }
  if constexpr (requires { entry.contribution(); }) {
    entry.contributionIs(draft.contribution);
  }
  if constexpr (requires { entry.metrics(); }) {
    entry.metricsIs(draft.metrics);
  }
  if constexpr (requires { entry.nexthopGroupId(); }) {
    entry.nexthopGroupIdIs(draft.nexthopGroupId);
  }
  if constexpr (requires { entry.tunnelInfo(); }) {
    auto& info = entry.tunnelInfoRef();
    info.sourceIs(draft.tunnelInfo.source());
    info.destinationIs(draft.tunnelInfo.destination());
    info.tosIs(draft.tunnelInfo.tos());
    info.ttlIs(draft.tunnelInfo.ttl());
    if constexpr (requires { info.spi(); }) {
      info.spiIs(draft.tunnelInfo.spi());
    }
  }
  return entry;
}

}  // namespace

EntryDraft entryDraft(TableId table, const JsonField& entry) {
  EntryDraft draft;
  readFields(fieldRows, table, entry, draft);
  return draft;
}

void putEntry(const ProtocolTables& tables, TableId table, const EntryDraft& entry) {
  tables.withTable(table, [&entry](auto& target) {
    using Table = std::remove_reference_t<decltype(target)>;
    target.entryIs(entryOf<typename Table::Record>(entry, Table::tableTunnelType));
  });
}

bool hasEntry(const ProtocolTables& tables, TableId table, std::uint64_t index) {
  bool has = false;
  tables.withTable(table, [&](const auto& target) { has = target.has(Model::TunnelId(target.tunnelType(), index)); });
  return has;
}

void deleteEntry(const ProtocolTables& tables, TableId table, std::uint64_t index) {
  tables.withTable(table, [&](auto& target) { target.entryDel(Model::TunnelId(target.tunnelType(), index)); });
}

}  // namespace Agent
