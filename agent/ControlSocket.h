// ControlSocket: lines in, lines out, over a Unix domain socket in the state directory.
//
//     client ── line ──▶ loop: read what is there ──▶ task: one line after the other, client by client ── answer ──▶
//
// The loop's callbacks only move bytes. Lines are answered by a task at the priority of the table feed, which yields as
// they do, so that no number of requests makes the agent's slices longer. All is bounded: clients, the bytes of a line,
// and, since a client's next line is looked at when its last answer has left, the bytes that wait to be written. Who
// sends no line for secondsIdleMax, or takes as long to read its answer, is dropped, and nobody wakes the agent for
// that while there are no clients.
//
// A client that breaks the form (a line too long, or without an end) is told so and dropped. Scheduler thread only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "agent/JsonRpc.h"
#include "runtime/Memtab/Descriptor.h"
#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/OwnedTask.h"

namespace Agent {

class ControlSocket {
 public:
  static constexpr std::size_t lineBytesMax = 65536;  // without its end
  static constexpr std::size_t clientsMax = 16;
  static constexpr double secondsIdleMax = 10;

  // The answer to a line, without an end of line; empty: none.
  using Answer = std::function<std::string(std::string_view line)>;

  // Replaces the socket that a dead agent left: the caller is the only agent over the directory. Owner and group may
  // connect. Raises InternalException with the path and the reason. The loop outlives this.
  ControlSocket(const std::string& stateDirectory, const Zol::Ptr<Quor::TaskScheduler>& scheduler,
                Quor::EventLoop& loop, Answer answer);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  // Removes the socket.
  ~ControlSocket();

  // Whether the path still leads to it.
  bool isInPlace() const;

  struct Counters {
    std::uint64_t connections = 0;
    std::uint64_t requests = 0;  // lines answered
    std::uint64_t refused = 0;   // connections beyond clientsMax, and clients that broke the form
    std::uint64_t dropped = 0;   // clients that were too slow
  };
  const Counters& counters() const { return counters_; }
  std::size_t clients() const { return clients_.size(); }

 private:
  struct Client {
    Memtab::Descriptor fd;
    double deadline;
    std::string input;
    std::string output;
    bool hasLine = false;    // in input
    bool isEof = false;      // nothing more will come
    bool isClosing = false;  // once output is written
    short events = 0;        // as the loop watches for them

    bool mayRead() const { return !isEof && !isClosing && !hasLine && output.empty(); }
    bool isDone() const { return output.empty() && !hasLine && (isEof || isClosing); }
  };

  void listen(const std::string& stateDirectory);
  void watchListener();
  void handleConnection();
  void handleClient(int fd);
  void handleDeadline();
  void answerLines();
  Client* nextWithLine();
  void answerLine(Client& client);

  void receive(Client& client);
  void send(Client& client);
  void reject(Client& client, RpcCode code, const std::string& reason);
  // What the loop watches for follows from the client's state; a client that is done goes.
  void settle(Client& client);
  void drop(Client& client);
  void armDeadline();

  const std::string path_;
  ino_t inode_ = 0;
  Quor::EventLoop& loop_;
  const Answer answer_;
  Memtab::Descriptor listener_;
  Quor::OwnedTask<ControlSocket> task_;
  Quor::OwnedClockNotifiee<ControlSocket> deadline_;
  std::map<int, Client> clients_;  // by descriptor
  int servedLast_ = -1;
  bool isListenerWatched_ = false;
  Counters counters_;
};

}  // namespace Agent
