// TunnelFibCalcResult: the outcome of computing one tunnel's FIB entry.
#pragma once

#include "runtime/Zol/Value.h"
#include "tunnel/TunnelFibViaCalcResult.h"

namespace Tunnel::TunnelTable {

class TunnelFibCalcResult {
  ZOL_VALUE(TunnelFibCalcResult, "Tunnel::TunnelTable::TunnelFibCalcResult", (TunnelFibViaCalcResult, viaResult),
            (bool, tunnelTableEntryDeleted), (bool, tunnelContributing))
};

}  // namespace Tunnel::TunnelTable
