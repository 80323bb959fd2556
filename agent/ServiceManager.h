// ServiceManager: tells who supervises the daemon how it is, in datagrams to the socket that NOTIFY_SOCKET names, as
// sd_notify(3) has them. Without that variable nothing is told.
//
//     start ──▶ STATUS while it waits ──▶ READY ──┬──▶ RELOADING ──▶ READY ...
//                                                 └──▶ STOPPING
//     WATCHDOG_USEC: clock ──three times within it──▶ task ──▶ WATCHDOG
//
// The sign of life is given by a task of the same priority as the backlogs. So it stays away when a task does not come
// back, or when more urgent ones let nobody else have a turn; but not for much work.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <optional>
#include <string>

#include "runtime/Memtab/Descriptor.h"
#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/OwnedTask.h"

namespace Agent {

class ServiceManager {
 public:
  // What the daemon does at the moment, in one line.
  using StatusText = std::function<std::string()>;

  // An address that is none, and telling that fails, are logged; the daemon works all the same.
  ServiceManager(const Zol::Ptr<Quor::TaskScheduler>& scheduler, StatusText statusText);

  // The status text may be another.
  void look();
  void ready();
  // The configuration is being read again, until the next ready(). Nothing before the first.
  void reloading();
  void stopping();

 private:
  struct Address {
    sockaddr_un name;
    socklen_t size;
  };
  static std::optional<Address> address();

  void doSignOfLife();
  // Waits for a while if the receiver is behind: that we are ready must not get lost. Not with MSG_DONTWAIT.
  void send(const std::string& message, int flags = 0);
  // A line of a message with the status text, if it has changed.
  std::string newStatus();

  const StatusText statusText_;
  const std::optional<Address> address_;  // nothing: nobody to tell
  Memtab::Descriptor socket_;             // made when the first message is sent
  const double beatSeconds_;              // 0: no sign of life is wanted
  Quor::OwnedTask<ServiceManager> signOfLife_;
  Quor::OwnedClockNotifiee<Quor::Task> beat_;
  std::string status_;  // as told last
  bool wasReady_ = false;
  bool hasFailed_ = false;
};

}  // namespace Agent
