// Where the control socket of an agent lies: agent.sock in its state directory.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "runtime/Memtab/Descriptor.h"

namespace Agent {

inline constexpr const char* controlSocketName = "agent.sock";

// The address to bind or to connect to. A directory whose name is longer than an address can be is reached through its
// descriptor, which is why this outlives the call that takes the address.
class ControlAddress {
 public:
  // Raises InternalException when the directory cannot be opened.
  explicit ControlAddress(const std::string& stateDirectory);

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  static constexpr socklen_t size() { return sizeof(sockaddr_un); }

 private:
  Memtab::Descriptor directory_;  // when it is needed
  sockaddr_un address_{};
};

}  // namespace Agent
