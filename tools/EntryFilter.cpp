#include "tools/EntryFilter.h"

#include <algorithm>

namespace Tools {

void EntryFilter::addOptions(const Agent::Command& command) {
  command.option("--tep", tepText_, "This tunnel endpoint alone, or the longest prefix that holds the address")
      .word("PREFIX|ADDRESS");
  command.option("--tunnel", tunnelText_, "This tunnel alone").word("ID");
  command.option("--type", typeText_, "Tunnels of this type alone").word("TYPE");
  command.option("--next-hop", nextHopText_, "Only entries with a via to this next hop").word("ADDRESS");
  command.option("--intf", intfText_, "Only entries with a via through this interface").word("INTF");
  command.option("--label", label_, "Only entries with a via that pushes this label")
      .word("LABEL")
      .between(std::uint64_t(0), Ipkit::MplsLabelOperation::labelMax);
}

void EntryFilter::read() {
  const auto take = [](const char* option, const std::string& text, auto& value) {
    if (!text.empty()) {
      value = optionValue<typename std::remove_reference_t<decltype(value)>::value_type>(option, text);
    }
  };
  if (tepText_.empty() || tepText_.find('/') != std::string::npos) {
    take("--tep", tepText_, tep_);
  } else {
    take("--tep", tepText_, tepAddress_);
    tep_ = Ipkit::IpGenPrefix(*tepAddress_, tepAddress_->bitCount());
  }
  take("--tunnel", tunnelText_, tunnel_);
  take("--next-hop", nextHopText_, nextHop_);
  take("--intf", intfText_, intf_);
  if (!typeText_.empty()) {
    try {
      type_ = Model::tunnelTypeFromText(typeText_);
    } catch (const Zol::Exception& error) {
      throw Agent::InputError("--type", Agent::printable(error.what(), 200));
    }
  }
}

bool EntryFilter::doesFit(const Ipkit::MplsLabelOperation& labels) const {
  const auto stack = Agent::topFirst(labels);
  return !label_ || std::find(stack.begin(), stack.end(), *label_) != stack.end();
}

void EntryFilter::offer(const Ipkit::IpGenPrefix& tep) {
  if (!!tep && tep.contains(*tepAddress_) && (!isTepFound_ || tep.length() > tep_->length())) {
    isTepFound_ = true;
    tep_ = tep;
  }
}

EntryFilter EntryFilter::among(const std::vector<Zol::Ptr<Model::TunnelRib>>& ribs) const {
  EntryFilter filter = *this;
  Model::TunnelRibEntry entry;
  for (const auto& rib : ribs) {
    if (tepAddress_ && longestMatch(*rib, *tepAddress_, entry)) {
      filter.offer(entry.tep());
    }
  }
  return filter;
}

EntryFilter EntryFilter::amongUnprogrammable(const Agent::AgentState& state) const {
  EntryFilter filter = *this;
  if (tepAddress_) {
    for (const auto& [id, isThere] : state.unprogrammable()->entry()) {
      filter.offer(tepOf(state, id));
    }
  }
  return filter;
}

bool EntryFilter::doesFitRibEntry(const Fib::TunnelFib& fib, const Model::TunnelRibEntry& entry) const {
  return doesFit(entry.tep()) &&
         std::any_of(entry.tunnelId().begin(), entry.tunnelId().end(), [&](const Model::TunnelId& id) {
           Fib::TunnelFibEntry fibEntry;
           return doesFit(id) &&
                  (!asksForVias() || (Model::readSafely(&fib.entry(), id, fibEntry) && doViasFit(fib, fibEntry)));
         });
}

bool EntryFilter::doViasFit(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry) const {
  if (!asksForVias()) {
    return true;
  }
  const auto hasFitting = [&](const Fib::TunnelViaArray& vias) {
    return std::any_of(vias.begin(), vias.end(), [&](const auto& via) { return doesViaFit(fib, via); });
  };
  return hasFitting(entry.tunnelVia()) || hasFitting(entry.backupTunnelVia());
}

bool EntryFilter::doesViaFit(const Fib::TunnelFib& fib, const Fib::TunnelVia& via) const {
  if (!doesFit(static_cast<const Model::Via&>(via))) {
    return false;
  }
  Fib::LabelStackEncap encap;
  return !label_ || (via.encapId().encapType() == Fib::EncapType::labelStack &&
                     Model::readSafely(&fib.labelStackEncap(), via.encapId(), encap) && doesFit(encap.info()));
}

}  // namespace Tools
