// FibScript: random changes of the twelve tables over few ids, so that tunnels resolve through each other, in cycles
// too. One seed makes one script.
#pragma once

#include <random>

#include "tests/support/FibScene.h"

namespace Tunnel::TunnelTable {

class FibScript {
 public:
  // ids: how many tunnels of each type there are.
  FibScript(FibScene& scene, unsigned seed, unsigned ids = 3) : scene_(scene), random_(seed), ids_(ids) {}

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  // Changes one entry of a table. Those of hiddenType stay as they are.
  void step(TunnelType hiddenType = TunnelType{}) {
    const unsigned kind = below(12);
    if (kind < mplsTypes && typeOf(kind) == hiddenType) {
      return;
    }
    change(kind, below(ids_), below(3) == 0);
  }

  // Opens or closes a ring of all MPLS types at one member, or changes what else the member has.
  void ringStep(unsigned size) {
    const unsigned at = below(size);
    FibScene::Vias vias;
    if (below(8) != 0) {
      vias.push_back(via("tunnel:" + ringName((at + 1) % size), labels(2)));
    }
    if (below(3) != 0) {
      vias.push_back(direct());
    }
    if (below(6) == 0) {
      vias.push_back(via("tunnel:" + ringName(below(size)), labels(2)));
    }
    put(at % mplsTypes, ringIndex + at / mplsTypes, vias, {});
  }

  // A tunnel with many vias, or none: needs much space, or releases it.
  void wideStep() {
    FibScene::Vias vias;
    for (unsigned i = below(3) == 0 ? 0 : 100 + below(413); i > 0; --i) {
      vias.push_back(via("if" + std::to_string(i), {16 + below(4)}));
    }
    scene_.put(FibScene::ldp(below(ids_), vias));
  }

 private:
  static constexpr unsigned mplsTypes = std::size(FibScene::mplsTypes);
  static constexpr std::uint64_t ringIndex = 100;

  static TunnelType typeOf(unsigned kind) { return FibScene::mplsTypes[kind]; }
  static std::string ringName(unsigned member) {
    return Zol::stringOf(TunnelId(typeOf(member % mplsTypes), ringIndex + member / mplsTypes));
  }

  void change(unsigned kind, std::uint64_t index, bool isDeleted) {
    const auto apply = [&](const auto& entry) { isDeleted ? scene_.del(entry) : scene_.put(entry); };
    switch (kind) {
      case mplsTypes:
        return apply(FibScene::nexthopGroup(index, below(2)));
      case mplsTypes + 1:
        return apply(FibScene::gre(index, backups(), below(2) == 0 ? "192.0.2.10" : "192.0.2.11"));
      case mplsTypes + 2:
        return apply(FibScene::interface<IpsecVtiIntfTunnelTableEntry>(index, backups(), "192.0.2.9", "192.0.2.12"));
      case mplsTypes + 3:
        return apply(FibScene::interface<IpsecGreIntfTunnelTableEntry>(index, backups(), "192.0.2.9", "192.0.2.13"));
      default:
        return put(kind, index, vias(below(8) == 0), backups(), isDeleted);
    }
  }

  void put(unsigned kind, std::uint64_t index, const FibScene::Vias& vias, const FibScene::Vias& backups,
           bool isDeleted = false) {
    const bool doesContribute = below(6) != 0;
    const bool mustPush = typeOf(kind) != TunnelType::bgpLuPushTunnel && typeOf(kind) != TunnelType::bgpLuTunnel &&
                          typeOf(kind) != TunnelType::staticTunnel;
    FibScene::withMpls(typeOf(kind), index, mustPush ? withPush(vias) : vias, backups, [&](auto entry) {
      if constexpr (requires { entry.contribution(); }) {
        entry.contributionIs(doesContribute ? Contribution::contributing : Contribution::notContributing);
      }
      isDeleted ? scene_.del(entry) : scene_.put(entry);
    });
  }

  MplsVia direct() { return via("if" + std::to_string(1 + below(2)), labels(), "192.0.2." + std::to_string(below(2))); }
  Labels labels(unsigned most = 5) {
    Labels labels(below(3) == 0 ? below(most) : 1);
    for (auto& label : labels) {
      label = 16 + below(4);
    }
    return labels;
  }
  FibScene::Vias vias(bool swaps) {
    static const char* const others[] = {"nexthopGroupTunnel", "l3IntfTunnel"};
    FibScene::Vias vias;
    for (unsigned count = below(4); count > 0; --count) {
      const unsigned kind = below(mplsTypes + 2);
      const std::string type = kind < mplsTypes ? Zol::stringOf(typeOf(kind)) : others[kind - mplsTypes];
      vias.push_back(below(3) == 0 ? direct() : via("tunnel:" + type + "/" + std::to_string(below(ids_)), labels()));
      if (swaps) {
        vias.back().labelOpIs(Ipkit::MplsLabelOperation(Ipkit::MplsLabelOperation::Op::swap, {}));
      }
    }
    return vias;
  }
  // The tables of the other types hold pushes only.
  static FibScene::Vias withPush(FibScene::Vias vias) {
    for (MplsVia& each : vias) {
      if (each.labelOp().op() != Ipkit::MplsLabelOperation::Op::push) {
        each.labelOpIs(Ipkit::MplsLabelOperation::push({}));
      }
    }
    return vias;
  }
  FibScene::Vias backups() {
    FibScene::Vias vias;
    for (unsigned count = below(3); count > 0; --count) {
      vias.push_back(direct());
    }
    return vias;
  }

  FibScene& scene_;
  std::mt19937 random_;
  const unsigned ids_;
};

}  // namespace Tunnel::TunnelTable
