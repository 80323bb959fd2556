#include "agent/ServiceManager.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "agent/Log.h"

namespace Agent {
namespace {

constexpr unsigned backlogPriority = 2;
constexpr timeval patience{5, 0};  // with a supervisor that hangs

std::string_view environment(const char* name) {
  const char* const text = std::getenv(name);
  return text == nullptr ? "" : text;
}

std::optional<std::uint64_t> numberIn(const char* name) {
  const std::string_view text = environment(name);
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && !text.empty() ? std::optional(number)
                                                                                   : std::nullopt;
}

// The variables may be inherited by a process that they are not meant for.
double beatSeconds() {
  const bool isForUs =
      environment("WATCHDOG_PID").empty() || numberIn("WATCHDOG_PID") == static_cast<std::uint64_t>(getpid());
  return isForUs ? static_cast<double>(numberIn("WATCHDOG_USEC").value_or(0)) * 1e-6 / 3 : 0;
}

// Nothing: errno has the reason.
Memtab::Descriptor datagramSocket() {
  Memtab::Descriptor made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (made) {
    setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }
  return made;
}

}  // namespace

ServiceManager::ServiceManager(const Zol::Ptr<Quor::TaskScheduler>& scheduler, StatusText statusText)
    : statusText_(std::move(statusText)),
      address_(address()),
      beatSeconds_(address_ ? beatSeconds() : 0),
      signOfLife_(*this, &ServiceManager::doSignOfLife, scheduler, backlogPriority, "ServiceManager"),
      beat_(signOfLife_, &Quor::Task::scheduleTask, scheduler->activityConfig().clock()) {
  if (beatSeconds_ > 0) {
    beat_.timeMinIs(scheduler->now());
  }
}

// A path, or a name in the kernel's own space, which begins with "@".
auto ServiceManager::address() -> std::optional<Address> {
  const std::string_view text = environment("NOTIFY_SOCKET");
  Address result{};
  if (text.empty()) {
    return std::nullopt;
  }
  if (text.size() < 2 || text.size() >= sizeof result.name.sun_path || (text[0] != '/' && text[0] != '@')) {
    log(LogLevel::warning,
        "NOTIFY_SOCKET: no address of a socket: " + std::string(text) + "; the service manager is not notified");
    return std::nullopt;
  }
  result.name.sun_family = AF_UNIX;
  std::copy(text.begin(), text.end(), result.name.sun_path);
  if (text[0] == '@') {
    result.name.sun_path[0] = '\0';
  }
  result.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
  return result;
}

void ServiceManager::look() {
  if (const std::string status = newStatus(); !status.empty()) {
    send(status, MSG_DONTWAIT);
  }
}

void ServiceManager::ready() {
  wasReady_ = true;
  send("READY=1\n" + newStatus());
}

void ServiceManager::reloading() {
  if (wasReady_) {
    const auto microseconds = static_cast<std::uint64_t>(signOfLife_.scheduler()->now() * 1e6);
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds) + "\n");
  }
}

void ServiceManager::stopping() { send("STOPPING=1\nSTATUS=stopping; RIBs and FIB stay\n"); }

void ServiceManager::doSignOfLife() {
  send("WATCHDOG=1\n" + newStatus(), MSG_DONTWAIT);
  beat_.timeMinIs(beat_.clock()->now() + beatSeconds_);
}

std::string ServiceManager::newStatus() {
  std::string status = statusText_();
  if (status == status_) {
    return "";
  }
  status_ = std::move(status);
  return "STATUS=" + status_ + "\n";
}

void ServiceManager::send(const std::string& message, int flags) {
  if (!address_) {
    return;
  }
  const auto* const name = reinterpret_cast<const sockaddr*>(&address_->name);
  if (!socket_) {
    socket_ = datagramSocket();
  }
  const bool isSent =
      socket_ && sendto(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL | flags, name, address_->size) >= 0;
  if (!isSent && !hasFailed_) {
    log(LogLevel::warning, "NOTIFY_SOCKET: cannot be written: " + std::string(environment("NOTIFY_SOCKET")) + ": " +
                               std::strerror(errno) + "; the service manager is not notified");
  }
  hasFailed_ = !isSent;
}

}  // namespace Agent
