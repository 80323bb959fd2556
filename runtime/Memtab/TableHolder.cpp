#include "runtime/Memtab/TableHolder.h"

#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace Memtab {

// The name in brackets may hold anything, so counting starts behind the last bracket.
uint64_t startOf(uint64_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') == std::string::npos ? text.size() : text.rfind(')') + 1));
  constexpr int startField = 22;
  std::string field;
  bool isDead = false;
  for (int number = 3; number < startField; ++number) {
    fields >> field;
    isDead = isDead || (number == 3 && (field == "Z" || field == "X"));
  }
  uint64_t start = 0;
  fields >> start;
  return fields && !isDead ? start : 0;
}

std::string holderText(uint64_t pid, uint64_t startTicks) {
  if (pid == 0 || startTicks == 0 || startOf(pid) != startTicks) {
    return "holder unknown";
  }
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string command;
  std::getline(file, command);
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const double start = static_cast<double>(startTicks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  std::array<char, 40> ago{};
  (void)std::snprintf(ago.data(), ago.size(), "%.1f", static_cast<double>(now.tv_sec) - start);
  return "pid " + std::to_string(pid) + " (" + command + "), started " + ago.data() + " s ago";
}

}  // namespace Memtab
