// The four kinds of encapsulation: one row each, and the only switch over EncapType. What is done with an encapsulation
// is written once, over these rows.
#pragma once

#include "tunnel/ViaAndTunnelInfo.h"

namespace Tunnel::TunnelTable {

template <class Info>
struct EncapKind;

template <>
struct EncapKind<GreTunnelInfo> {
  using Info = GreTunnelInfo;
  static constexpr auto type = EncapType::gre;
  static constexpr auto word = "GRE";                                   // in traces
  static constexpr auto insertName = "insertGreEncap";                  // the same
  static constexpr auto info = &ViaAndTunnelInfo::greTunnelInfo;        // which field of a via holds it
  static constexpr auto infoRef = &ViaAndTunnelInfo::greTunnelInfoRef;  // the same, to be filled
  template <class Fib>
  static auto& encaps(Fib& fib) {  // where its records live
    return fib.greEncap();
  }
};

template <>
struct EncapKind<IpsecVtiTunnelInfo> {
  using Info = IpsecVtiTunnelInfo;
  static constexpr auto type = EncapType::ipsecVti;
  static constexpr auto word = "IPsec VTI";
  static constexpr auto insertName = "insertIpsecVtiEncap";
  static constexpr auto info = &ViaAndTunnelInfo::ipsecVtiTunnelInfo;
  static constexpr auto infoRef = &ViaAndTunnelInfo::ipsecVtiTunnelInfoRef;
  template <class Fib>
  static auto& encaps(Fib& fib) {
    return fib.ipsecVtiEncap();
  }
};

template <>
struct EncapKind<IpsecGreTunnelInfo> {
  using Info = IpsecGreTunnelInfo;
  static constexpr auto type = EncapType::ipsecGre;
  static constexpr auto word = "IPsec+GRE";
  static constexpr auto insertName = "insertIpsecGreEncap";
  static constexpr auto info = &ViaAndTunnelInfo::ipsecGreTunnelInfo;
  static constexpr auto infoRef = &ViaAndTunnelInfo::ipsecGreTunnelInfoRef;
  template <class Fib>
  static auto& encaps(Fib& fib) {
    return fib.ipsecGreEncap();
  }
};

template <>
struct EncapKind<Ipkit::MplsLabelOperation> {
  using Info = Ipkit::MplsLabelOperation;
  static constexpr auto type = EncapType::labelStack;
  static constexpr auto word = "MPLS";
  static constexpr auto insertName = "insertLabelStackEncap";
  static constexpr auto info = &ViaAndTunnelInfo::labelStack;
  static constexpr auto infoRef = &ViaAndTunnelInfo::labelStackRef;
  template <class Fib>
  static auto& encaps(Fib& fib) {
    return fib.labelStackEncap();
  }
};

// Calls f with the row of the type; false, and no call, when no encapsulation has the type.
template <class F>
bool withEncapKind(EncapType type, F&& f) {
  switch (type) {
    case EncapType::gre:
      f(EncapKind<GreTunnelInfo>{});
      return true;
    case EncapType::ipsecVti:
      f(EncapKind<IpsecVtiTunnelInfo>{});
      return true;
    case EncapType::ipsecGre:
      f(EncapKind<IpsecGreTunnelInfo>{});
      return true;
    case EncapType::labelStack:
      f(EncapKind<Ipkit::MplsLabelOperation>{});
      return true;
    case EncapType::invalid:
      break;
  }
  return false;
}

// Calls f with each row.
template <class F>
void forEachEncapKind(F&& f) {
  for (const auto type : {EncapType::gre, EncapType::ipsecVti, EncapType::ipsecGre, EncapType::labelStack}) {
    withEncapKind(type, f);
  }
}

}  // namespace Tunnel::TunnelTable
