#include "agent/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/ControlAddress.h"
#include "agent/Log.h"

namespace Agent {
namespace {

constexpr unsigned taskPriority = 3;  // that of the table feed, behind the backlogs
constexpr std::size_t readBytes = 16384;
constexpr int connectionsAtOnce = 8;
constexpr double secondsWithoutDescriptors = 1;  // until the next try when the system has none left
constexpr mode_t modeMask = 0117;                // leaves 0660

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw Zol::InternalException(path + ": " + what + ": " + std::strerror(errno));
}

// 0: nothing is there.
ino_t inodeOf(const std::string& path) {
  struct stat facts {};
  return lstat(path.c_str(), &facts) == 0 ? facts.st_ino : 0;
}

bool isTryAgain() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

ControlSocket::ControlSocket(const std::string& stateDirectory, const Zol::Ptr<Quor::TaskScheduler>& scheduler,
                             Quor::EventLoop& loop, Answer answer)
    : path_(stateDirectory + "/" + controlSocketName),
      loop_(loop),
      answer_(std::move(answer)),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      task_(*this, &ControlSocket::answerLines, scheduler, taskPriority, "ControlSocket"),
      deadline_(*this, &ControlSocket::handleDeadline, scheduler->activityConfig().clock()) {
  if (!listener_) {
    fail(path_, "no socket");
  }
  listen(stateDirectory);
  watchListener();
}

ControlSocket::~ControlSocket() {
  while (!clients_.empty()) {
    drop(clients_.begin()->second);
  }
  if (isListenerWatched_) {
    loop_.fdDel(listener_.get());
  }
  if (isInPlace()) {
    unlink(path_.c_str());
  }
}

void ControlSocket::listen(const std::string& stateDirectory) {
  struct stat facts {};
  if (lstat(path_.c_str(), &facts) == 0) {
    if (!S_ISSOCK(facts.st_mode)) {
      throw Zol::InternalException(path_ + ": not a socket, and left as it is");
    }
    if (unlink(path_.c_str()) != 0 && errno != ENOENT) {
      fail(path_, "the socket of an earlier agent cannot be removed");
    }
  }
  const ControlAddress address(stateDirectory);
  const mode_t before = umask(modeMask);
  const bool isBound = bind(listener_.get(), address.get(), ControlAddress::size()) == 0;
  umask(before);
  if (!isBound) {
    fail(path_, "cannot be made");
  }
  if (::listen(listener_.get(), static_cast<int>(clientsMax)) != 0) {
    fail(path_, "no client can connect");
  }
  inode_ = inodeOf(path_);
}

bool ControlSocket::isInPlace() const { return inode_ != 0 && inodeOf(path_) == inode_; }

void ControlSocket::watchListener() {
  loop_.fdIs(listener_.get(), [this] { handleConnection(); });
  isListenerWatched_ = true;
}

void ControlSocket::handleConnection() {
  for (int i = 0; i < connectionsAtOnce; ++i) {
    const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (!isTryAgain() && errno != ECONNABORTED) {  // a connection that cannot be taken would call back for ever
        logBounded(LogLevel::warning, "control socket",
                   "control socket: no connection can be taken: " + path_ + ": " + std::strerror(errno) +
                       "; trying again in a second");
        loop_.fdDel(listener_.get());
        isListenerWatched_ = false;
        deadline_.timeMinIs(std::min(deadline_.timeMin(), deadline_.clock()->now() + secondsWithoutDescriptors));
      }
      return;
    }
    ++counters_.connections;
    const bool isOneTooMany = clients_.size() == clientsMax;
    Client client{Memtab::Descriptor(fd), deadline_.clock()->now() + secondsIdleMax, {}, {}};
    if (isOneTooMany) {
      ++counters_.refused;
      client.output = rpcErrorText(RpcCode::tooManyClients,
                                   "more than " + std::to_string(clientsMax) + " clients at once, try again") +
                      "\n";
      send(client);
    } else {
      settle(clients_.emplace(fd, std::move(client)).first->second);
      armDeadline();
    }
  }
}

void ControlSocket::handleClient(int fd) {
  Client& client = clients_.at(fd);
  send(client);
  receive(client);
  settle(client);
}

void ControlSocket::receive(Client& client) {
  if (!client.mayRead()) {
    return;
  }
  std::array<char, readBytes> bytes;
  const ssize_t got = recv(client.fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (got < 0) {
    if (!isTryAgain()) {
      client.isEof = client.isClosing = true;
    }
    return;
  }
  const std::string_view chunk(bytes.data(), static_cast<std::size_t>(got));
  const std::size_t end = chunk.find('\n');
  const std::size_t length = client.input.size() + std::min(end, chunk.size());
  client.input += chunk;
  client.hasLine = end != std::string_view::npos;
  client.isEof = chunk.empty();
  if (length > lineBytesMax) {
    reject(client, RpcCode::notJson, "line: more than " + std::to_string(lineBytesMax) + " bytes");
  } else if (client.isEof && !client.hasLine && !client.input.empty()) {
    reject(client, RpcCode::notJson, "line: without an end");
  }
}

void ControlSocket::send(Client& client) {
  if (client.output.empty()) {
    return;
  }
  const ssize_t sent = ::send(client.fd.get(), client.output.data(), client.output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent > 0) {
    client.output.erase(0, static_cast<std::size_t>(sent));
  } else if (sent < 0 && !isTryAgain()) {  // the reader has gone
    client.output.clear();
    client.hasLine = false;
    client.isClosing = true;
  }
}

void ControlSocket::reject(Client& client, RpcCode code, const std::string& reason) {
  ++counters_.refused;
  client.hasLine = false;
  client.isClosing = true;
  client.output += rpcErrorText(code, reason) + "\n";
  send(client);
}

void ControlSocket::settle(Client& client) {
  if (client.isDone()) {
    drop(client);
    return;
  }
  if (client.hasLine && client.output.empty()) {
    task_.scheduleTask();
  }
  const auto events = static_cast<short>((client.output.empty() ? 0 : POLLOUT) | (client.mayRead() ? POLLIN : 0));
  if (events != client.events) {
    client.events = events;
    const int fd = client.fd.get();
    loop_.fdIs(
        fd, [this, fd] { handleClient(fd); }, events);
  }
}

void ControlSocket::drop(Client& client) {
  const int fd = client.fd.get();
  loop_.fdDel(fd);
  clients_.erase(fd);
}

// By turns, so that none keeps the others waiting.
ControlSocket::Client* ControlSocket::nextWithLine() {
  const auto hasLine = [](const auto& each) { return each.second.hasLine && each.second.output.empty(); };
  const auto from = clients_.upper_bound(servedLast_);
  auto next = std::find_if(from, clients_.end(), hasLine);
  if (next == clients_.end()) {
    next = std::find_if(clients_.begin(), from, hasLine);
    if (next == from) {
      return nullptr;
    }
  }
  servedLast_ = next->first;
  return &next->second;
}

void ControlSocket::answerLines() {
  while (Client* const client = nextWithLine()) {
    answerLine(*client);
    if (task_.taskShouldYield()) {
      task_.scheduleTask();
      return;
    }
  }
}

void ControlSocket::answerLine(Client& client) {
  const std::size_t end = client.input.find('\n');
  const std::string_view line(client.input.data(), end);
  if (line.find_first_not_of(" \t\r") != std::string_view::npos) {
    ++counters_.requests;
    client.output = answer_(line);
    client.output += client.output.empty() ? "" : "\n";
  }
  client.input.erase(0, end + 1);
  client.hasLine = client.input.find('\n') != std::string::npos;
  client.deadline = deadline_.clock()->now() + secondsIdleMax;
  if (client.isEof && !client.hasLine && !client.input.empty()) {
    reject(client, RpcCode::notJson, "line: without an end");
  }
  send(client);
  settle(client);
}

void ControlSocket::armDeadline() {
  for (const auto& [fd, client] : clients_) {
    deadline_.timeMinIs(std::min(deadline_.timeMin(), client.deadline));
  }
}

// Deadlines only move away, so the one that is armed is never too late, and a client that talks arms none.
void ControlSocket::handleDeadline() {
  const double now = deadline_.clock()->now();
  if (!isListenerWatched_) {
    watchListener();
  }
  std::vector<int> late;
  for (const auto& [fd, client] : clients_) {
    const bool waitsForUs = client.hasLine && client.output.empty();
    if (client.deadline <= now && !waitsForUs) {
      late.push_back(fd);
    }
  }
  for (const int fd : late) {
    Client& client = clients_.at(fd);
    ++counters_.dropped;
    if (client.output.empty()) {
      const std::string what = client.input.empty() ? "line: none for " : "line: no end of it for ";
      const std::string limit = std::to_string(static_cast<int>(secondsIdleMax)) + " seconds";
      client.output = rpcErrorText(RpcCode::deadline, what + limit) + "\n";
      send(client);
    }
    drop(client);
  }
  armDeadline();
}

}  // namespace Agent
