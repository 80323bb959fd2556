#include "tools/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>
#include <utility>

#include "agent/ControlAddress.h"
#include "agent/InputError.h"
#include "agent/JsonRpc.h"
#include "tools/ControlMethod.h"
#include "tools/StateReading.h"

namespace Tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t answerBytesMax = 16U << 20;

// Why nobody listens: who runs as an agent is known by the FIB that it writes.
std::string runningAgent(const std::string& stateDirectory) {
  std::optional<std::uint64_t> pid;
  try {
    const StateReading reading(stateDirectory);
    const Memtab::MirrorStore& fib = *reading.state().entityManager()->mirror(Agent::fibPath);
    pid = writerOf(fib);
    if (!pid && !fib.trouble().empty()) {
      return "no agent answers; whether one runs cannot be found out: " + fib.trouble();
    }
  } catch (const std::exception&) {  // no tables that can be read
  }
  return pid ? "the agent (pid " + std::to_string(*pid) + ") runs without a control socket, its log says why"
             : "no agent is running";
}

// One connection, with a deadline for all that is done over it.
class Connection {
 public:
  Connection(const std::string& stateDirectory, double seconds)
      : stateDirectory_(stateDirectory),
        path_(stateDirectory + "/" + Agent::controlSocketName),
        seconds_(seconds),
        end_(Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (!fd_) {
      fail(std::string("no socket to connect with: ") + std::strerror(errno));
    }
    connect(Agent::ControlAddress(stateDirectory));
  }

  // What has been taken when the agent hangs up early does not matter: its answer says why.
  void write(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (sent >= 0) {
        text.remove_prefix(static_cast<std::size_t>(sent));
      } else if (errno == EAGAIN) {
        await(POLLOUT);
      } else if (errno == EPIPE || errno == ECONNRESET) {
        return;
      } else if (errno != EINTR) {
        fail(std::string("the request cannot be sent: ") + std::strerror(errno));
      }
    }
  }

  std::string readLine() {
    std::string line;
    std::array<char, 16384> bytes;
    for (;;) {
      const ssize_t got = recv(fd_.get(), bytes.data(), bytes.size(), 0);
      if (got > 0) {
        line.append(bytes.data(), static_cast<std::size_t>(got));
        if (line.back() == '\n') {
          return line;
        }
        if (line.size() > answerBytesMax) {
          fail("an answer without an end");
        }
      } else if (got < 0 && errno == EAGAIN) {
        await(POLLIN);
      } else if (got == 0 || errno == ECONNRESET) {
        fail("the agent hung up");
      } else if (errno != EINTR) {
        fail(std::string("the answer cannot be read: ") + std::strerror(errno));
      }
    }
  }

 private:
  [[noreturn]] void fail(const std::string& reason) const { throw AgentUnreachable(path_ + ": " + reason); }

  void connect(const Agent::ControlAddress& address) {
    while (::connect(fd_.get(), address.get(), Agent::ControlAddress::size()) != 0) {
      switch (errno) {
        case ENOENT:
        case ECONNREFUSED:
          fail(runningAgent(stateDirectory_));
        case EAGAIN:  // the queue of those who wait to be let in is full
          await(0);
          break;
        case EINTR:
          break;
        default:
          fail(std::string("cannot connect: ") + std::strerror(errno));
      }
    }
  }

  // Waits for the events; for none, a moment.
  void await(short events) const {
    const double left = std::chrono::duration<double>(end_ - Clock::now()).count();
    if (left <= 0) {
      char limit[32];
      std::snprintf(limit, sizeof limit, "%g", seconds_);
      fail("the agent" + agentName() + " has not answered for " + limit + " seconds");
    }
    if (events == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      return;
    }
    pollfd polled{fd_.get(), events, 0};
    poll(&polled, 1, static_cast<int>(std::ceil(std::min(left, 1e6) * 1000)));
  }

  std::string agentName() const {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0
               ? " (pid " + std::to_string(peer.pid) + ")"
               : "";
  }

  const std::string stateDirectory_;
  const std::string path_;
  const double seconds_;
  const Clock::time_point end_;
  const Memtab::Descriptor fd_;
};

}  // namespace

ControlClient::ControlClient(std::string stateDirectory, double seconds)
    : stateDirectory_(std::move(stateDirectory)), seconds_(seconds) {
  if (!isDirectory(stateDirectory_)) {
    throw std::runtime_error(Agent::printable(stateDirectory_, 200) + ": no such state directory");
  }
}

std::string ControlClient::exchange(const std::string& line, bool isOrder) const {
  Connection connection(stateDirectory_, seconds_);
  connection.write(line + "\n");
  try {
    return connection.readLine();
  } catch (const AgentUnreachable& error) {
    throw AgentUnreachable(error.what() + std::string(isOrder ? "; it may still carry the order out" : ""));
  }
}

Agent::OrderedJson ControlClient::ask(const std::string& method, const Agent::OrderedJson& params) const {
  constexpr int id = 1;
  const ControlMethod& asked = ControlMethod::named(method);
  const std::string line = Agent::textOf({{"jsonrpc", "2.0"}, {"method", method}, {"params", params}, {"id", id}});
  const std::string text = exchange(line, asked.isOrder);
  const Agent::OrderedJson answer = Agent::OrderedJson::parse(text, nullptr, false);
  const auto refuse = [&](const std::string& why) {
    throw std::runtime_error("the agent's answer is none, " + why + ": " + Agent::printable(text, 200));
  };
  if (answer.is_object() && answer.contains("result")) {
    if (!answer.contains("id") || answer["id"] != id) {
      refuse("it is to another question");
    }
    const std::string misfit = misfitOf(answer["result"], Agent::OrderedJson::parse(asked.form));
    if (!misfit.empty()) {
      refuse(misfit + " is missing or of another kind");
    }
    return answer["result"];
  }
  const std::string misfit = misfitOf(answer, {{"error", {{"code", -1}, {"message", ""}}}}, "answer");
  if (!misfit.empty()) {
    refuse(misfit + " is missing or of another kind");
  }
  const auto code = answer["error"]["code"].get<std::int64_t>();
  const std::string message = answer["error"]["message"];
  if (code == static_cast<int>(Agent::RpcCode::refused) || code == static_cast<int>(Agent::RpcCode::wrongParams)) {
    throw Agent::ScenarioError("refused by the agent", message);
  }
  throw std::runtime_error("the agent answers: " + message);
}

}  // namespace Tools
