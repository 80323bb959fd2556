#include "agent/FibView.h"

#include <algorithm>
#include <utility>

#include "agent/StateDocument.h"
#include "tunnel/TunnelTable.h"

namespace Agent {
namespace {

namespace Model = Tunnel::TunnelTable;

// f(collection) for the collection of that type's records; the one switch over EncapType here.
template <class F>
void withEncaps(const Fib::TunnelFib& fib, Fib::EncapType type, F&& f) {
  switch (type) {
    case Fib::EncapType::gre:
      return f(fib.greEncap());
    case Fib::EncapType::ipsecVti:
      return f(fib.ipsecVtiEncap());
    case Fib::EncapType::ipsecGre:
      return f(fib.ipsecGreEncap());
    case Fib::EncapType::labelStack:
      return f(fib.labelStackEncap());
    case Fib::EncapType::invalid:
      return;
  }
}

void fill(Encap& encap, const Ipkit::MplsLabelOperation& labels) { encap.labels = labels; }
template <class Info>
void fill(Encap& encap, const Info& info) {
  encap.info.sourceIs(info.source());
  encap.info.destinationIs(info.destination());
  encap.info.tosIs(info.tos());
  encap.info.ttlIs(info.ttl());
  if constexpr (requires { info.spi(); }) {
    encap.info.spiIs(info.spi());
  }
}

OrderedJson viasJson(const Fib::TunnelFib& fib, const Fib::TunnelViaArray& vias) {
  struct Seen {
    Model::Via via;
    Encap encap;
    Fib::EncapId id;
  };
  std::vector<Seen> sorted;
  for (const Fib::TunnelVia& via : vias) {
    sorted.push_back({via, encap(fib, via.encapId()), via.encapId()});
  }
  std::stable_sort(sorted.begin(), sorted.end(), [](const Seen& a, const Seen& b) {
    const auto byVia = a.via <=> b.via;
    return byVia != 0 ? byVia < 0 : a.encap < b.encap;
  });
  OrderedJson json = OrderedJson::array();
  for (const Seen& seen : sorted) {
    OrderedJson encapJson = {{"type", Fib::stringValue(seen.id.encapType())}};
    if (seen.encap.isMissing) {
      encapJson["missing"] = Zol::stringOf(seen.id);
    } else {
      encapJson.update(encapFieldsJson(seen.encap));
    }
    json.push_back({{"nextHop", Zol::stringOf(seen.via.nextHop())},
                    {"intf", Zol::stringOf(seen.via.intf())},
                    {"encap", std::move(encapJson)}});
  }
  return json;
}

}  // namespace

Encap encap(const Fib::TunnelFib& fib, const Fib::EncapId& id) {
  Encap encap;
  encap.type = id.encapType();
  encap.isMissing = encap.type != Fib::EncapType::invalid;
  withEncaps(fib, encap.type, [&](const auto& encaps) {
    typename std::remove_cvref_t<decltype(encaps)>::Record record;
    if (Model::readSafely(&encaps, id, record)) {
      encap.isMissing = false;
      fill(encap, record.info());
    }
  });
  return encap;
}

std::vector<Fib::EncapId> sortedEncapIds(const Fib::TunnelFib& fib) {
  std::vector<Fib::EncapId> ids;
  for (const Fib::EncapType type :
       {Fib::EncapType::gre, Fib::EncapType::ipsecVti, Fib::EncapType::ipsecGre, Fib::EncapType::labelStack}) {
    withEncaps(fib, type, [&ids](const auto& encaps) {
      const auto keys = sortedKeys(encaps);
      ids.insert(ids.end(), keys.begin(), keys.end());
    });
  }
  return ids;
}

std::map<Fib::EncapId, std::uint32_t> encapRefCounts(const Fib::TunnelFib& fib) {
  std::map<Fib::EncapId, std::uint32_t> counts;
  Model::walkSafely(fib.entry(), true, [&](const auto& hint) {
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

OrderedJson fibEntryJson(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry) {
  return {{"tunnel", Zol::stringOf(entry.tunnelId())},
          {"vias", viasJson(fib, entry.tunnelVia())},
          {"backupVias", viasJson(fib, entry.backupTunnelVia())}};
}

OrderedJson encapFieldsJson(const Encap& encap) {
  if (encap.type == Fib::EncapType::invalid) {
    return OrderedJson::object();
  }
  if (encap.type == Fib::EncapType::labelStack) {
    OrderedJson labels = OrderedJson::array();
    for (std::size_t i = encap.labels.stackSize(); i > 0; --i) {
      labels.push_back(encap.labels.label(i - 1));
    }
    return {{"labels", std::move(labels)}};
  }
  OrderedJson json = {{"source", Zol::stringOf(encap.info.source())},
                      {"destination", Zol::stringOf(encap.info.destination())},
                      {"tos", encap.info.tos()},
                      {"ttl", encap.info.ttl()}};
  if (encap.type != Fib::EncapType::gre) {
    json["spi"] = encap.info.spi();
  }
  return json;
}

}  // namespace Agent
