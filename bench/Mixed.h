// Keys and hashes that look random, the same in every run.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/Memtab/Layout.h"

inline std::uint64_t mixed(std::uint64_t x) {
  x = (x ^ x >> 33) * 0xFF51'AFD7'ED55'8CCD;
  x = (x ^ x >> 33) * 0xC4CE'B9FE'1A85'EC53;
  return x ^ x >> 33;
}

inline std::uint64_t hashOf(Memtab::Bytes key) {
  std::uint64_t number = 0;
  std::memcpy(&number, key.data(), std::min(key.size(), sizeof number));
  return mixed(number);
}
