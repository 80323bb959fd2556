// The socket of a service manager, as a supervised daemon finds it in NOTIFY_SOCKET.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace Support {

class NotifySocket {
 public:
  // name: a path, or one in the kernel's own space, with "@" before it.
  explicit NotifySocket(const std::string& name) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    if (name.starts_with('@')) {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    isBound_ = bind(socket_, reinterpret_cast<const sockaddr*>(&address), size) == 0;
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;
  ~NotifySocket() { close(socket_); }

  bool isBound() const { return isBound_; }

  // The next message; empty when none comes in time.
  std::string next(double seconds = 20) {
    pollfd ready{socket_, POLLIN, 0};
    std::array<char, 4096> text{};
    if (poll(&ready, 1, static_cast<int>(seconds * 1000)) != 1) {
      return "";
    }
    const ssize_t size = recv(socket_, text.data(), text.size(), 0);
    return std::string(text.data(), size < 0 ? 0 : static_cast<std::size_t>(size));
  }
  // The first message with that text in it, those before it passed over; empty when none comes.
  std::string nextWith(const std::string& text, double seconds = 20) {
    std::string message;
    do {
      message = next(seconds);
      passed_ += message;
    } while (!message.empty() && message.find(text) == std::string::npos);
    return message;
  }
  // All that nextWith() has seen.
  const std::string& seen() const { return passed_; }

 private:
  int socket_;
  bool isBound_ = false;
  std::string passed_;
};

}  // namespace Support
