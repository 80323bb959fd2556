#include "agent/FibView.h"

#include <algorithm>
#include <utility>

#include "agent/StateDocument.h"
#include "tunnel/TunnelTable.h"

namespace Agent {
namespace {

namespace Model = Tunnel::TunnelTable;

// Documents sort label stacks as they show them, so that whoever writes such a document need not know how a stack is
// kept.
bool isBefore(const FibVia& left, const FibVia& right) {
  const auto& [a, b] = std::pair<const Model::ViaAndTunnelInfo&, const Model::ViaAndTunnelInfo&>(left.via, right.via);
  if (const auto byVia = a.via() <=> b.via(); byVia != 0) {
    return byVia < 0;
  }
  if (a.type() != b.type()) {
    return a.type() < b.type();
  }
  if (!(a.labelStack() == b.labelStack())) {
    return topFirst(a.labelStack()) < topFirst(b.labelStack());
  }
  return a < b;
}

FibVia fibVia(const Fib::TunnelFib& fib, const Fib::TunnelVia& tunnelVia) {
  const Fib::EncapId id = tunnelVia.encapId();
  FibVia result{Model::ViaAndTunnelInfo(tunnelVia, id.encapType()), id};
  Model::withEncapKind(id.encapType(), [&](auto kind) {
    const auto& encaps = kind.encaps(fib);
    typename std::remove_cvref_t<decltype(encaps)>::Record record;
    result.isEncapMissing = !Model::readSafely(&encaps, id, record);
    (result.via.*kind.infoRef)() = record.info();
  });
  return result;
}

void addInfo(OrderedJson& json, const Ipkit::MplsLabelOperation& labels) { json["labels"] = topFirst(labels); }
template <class Info>
void addInfo(OrderedJson& json, const Info& info) {
  addWrapping(json, info);
}

std::string summaryOf(const Fib::TunnelFib& fib, const Fib::TunnelViaArray& vias) {
  constexpr std::size_t shownMax = 2;
  const std::vector<FibVia> sorted = sortedVias(fib, vias);
  std::string words;
  for (std::size_t i = 0; i < std::min(sorted.size(), shownMax); ++i) {
    words += (i == 0 ? "" : ", ") + summaryOf(sorted[i]);
  }
  return sorted.size() > shownMax ? words + " and " + std::to_string(sorted.size() - shownMax) + " more" : words;
}

}  // namespace

std::vector<Ipkit::MplsLabelOperation::Label> topFirst(const Ipkit::MplsLabelOperation& operation) {
  std::vector<Ipkit::MplsLabelOperation::Label> labels;
  for (std::size_t i = operation.stackSize(); i > 0; --i) {
    labels.push_back(operation.label(i - 1));
  }
  return labels;
}

std::vector<FibVia> sortedVias(const Fib::TunnelFib& fib, const Fib::TunnelViaArray& vias) {
  std::vector<FibVia> sorted;
  for (const Fib::TunnelVia& via : vias) {
    sorted.push_back(fibVia(fib, via));
  }
  std::stable_sort(sorted.begin(), sorted.end(), isBefore);
  return sorted;
}

std::vector<Fib::EncapId> sortedEncapIds(const Fib::TunnelFib& fib) {
  std::vector<Fib::EncapId> ids;
  Model::forEachEncapKind([&](auto kind) {
    const auto keys = sortedKeys(kind.encaps(fib));
    ids.insert(ids.end(), keys.begin(), keys.end());
  });
  return ids;
}

std::map<Fib::EncapId, std::uint32_t> encapRefCounts(const Fib::TunnelFib& fib) {
  std::map<Fib::EncapId, std::uint32_t> counts;
  Model::walkSafely(fib.entry(), [&](const auto& hint) {
    Fib::TunnelFibEntry entry;
    if (Model::readSafely(&fib.entry(), hint.key(), entry)) {
      for (const Fib::TunnelViaArray* const vias : {&entry.tunnelVia(), &entry.backupTunnelVia()}) {
        for (const Fib::TunnelVia& via : *vias) {
          ++counts[via.encapId()];
        }
      }
    }
  });
  return counts;
}

OrderedJson viasJson(const std::vector<FibVia>& vias) {
  OrderedJson json = OrderedJson::array();
  for (const FibVia& each : vias) {
    OrderedJson encap = {{"type", Fib::stringValue(each.encapId.encapType())}};
    if (each.isEncapMissing) {
      encap["missing"] = Zol::stringOf(each.encapId);
    } else {
      Model::withEncapKind(each.encapId.encapType(), [&](auto kind) { addInfo(encap, (each.via.*kind.info)()); });
    }
    json.push_back({{"nextHop", Zol::stringOf(each.via.via().nextHop())},
                    {"intf", Zol::stringOf(each.via.via().intf())},
                    {"encap", std::move(encap)}});
  }
  return json;
}

OrderedJson fibEntryJson(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry) {
  return {{"tunnel", Zol::stringOf(entry.tunnelId())},
          {"vias", viasJson(sortedVias(fib, entry.tunnelVia()))},
          {"backupVias", viasJson(sortedVias(fib, entry.backupTunnelVia()))}};
}

OrderedJson encapJson(const Fib::TunnelFib& fib, const Fib::EncapId& id, std::uint32_t refCount) {
  OrderedJson json = {{"id", Zol::stringOf(id)}, {"refCount", refCount}};
  const FibVia via = fibVia(fib, Fib::TunnelVia(Model::Via(), id));
  Model::withEncapKind(id.encapType(), [&](auto kind) { addInfo(json, (via.via.*kind.info)()); });
  return json;
}

std::string summaryOf(const Model::Via& via) {
  const std::string intf = Zol::stringOf(via.intf());
  return !via.nextHop() ? intf : intf + " " + Zol::stringOf(via.nextHop());
}

std::string summaryOf(const Ipkit::MplsLabelOperation& labels) {
  using Op = Ipkit::MplsLabelOperation::Op;
  const bool isPush = labels.op() == Op::push || labels.op() == Op::none;
  return (isPush ? "" : Zol::stringOf(labels.op()) + " ") + textOf(topFirst(labels));
}

std::string summaryOf(const FibVia& via) {
  const Fib::EncapType type = via.encapId.encapType();
  std::string words = summaryOf(via.via.via());
  Model::withEncapKind(type, [&](auto kind) {
    const bool isStack = type == Fib::EncapType::labelStack;
    words += isStack && !via.isEncapMissing ? " " : " " + Fib::stringValue(type) + " ";
    words += via.isEncapMissing ? "without a record" : summaryOf((via.via.*kind.info)());
  });
  return words;
}

std::string summaryOf(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry) {
  const std::string vias = entry.tunnelVias() > 0 ? summaryOf(fib, entry.tunnelVia()) : "no vias";
  return entry.backupTunnelVias() > 0 ? vias + " backup " + summaryOf(fib, entry.backupTunnelVia()) : vias;
}

}  // namespace Agent
