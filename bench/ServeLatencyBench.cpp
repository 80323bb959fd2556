// The agent as a process of its own.
//
//   publishToFib              from a publisher's put to the FIB entry that another process can read, with 100 us
//   between
//                             changes; the agent sleeps in between
//   futexPingPong             two processes that wake each other, beside it
//   oneChangeBehindABulkLoad  the same as the first for a change behind 100,000 others
//   restart                   CPU time of a new agent over 100,000 tunnels that have not changed, until it is ready
//
// Waiting for the FIB is spinning, so two processors are needed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "tunnel/TunnelTableInfo.h"

namespace {

namespace Model = Tunnel::TunnelTable;
using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

void report(benchmark::State& state, std::vector<double>& latencies) {
  std::sort(latencies.begin(), latencies.end());
  state.counters["median_us"] = latencies[latencies.size() / 2];
  state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
}

Model::LdpTunnelTableEntry entryOf(std::uint64_t index, std::uint32_t label) {
  Model::LdpTunnelTableEntry entry(Model::TunnelId(Model::TunnelType::ldpTunnel, index));
  entry.tepIs(Ipkit::IpGenPrefix::fromText("10." + std::to_string(index >> 16 & 255) + "." +
                                           std::to_string(index >> 8 & 255) + "." + std::to_string(index & 255) +
                                           "/32"));
  Model::MplsVia via;
  via.nextHopIs(Ipkit::IpGenAddr::fromText("192.0.2.1"));
  via.intfIs(Ipkit::IntfId::fromText("if12"));
  const Ipkit::MplsLabelOperation::Label labels[] = {label & 0xFFFFF};
  via.labelOpIs(Ipkit::MplsLabelOperation::push(labels));
  entry.viaRef().append(via);
  return entry;
}

// An agent as a process, a publisher and a reader of its FIB in this one.
class Lab {
 public:
  Lab() {
    std::filesystem::remove_all(directory_);
    startAgent();
    const std::string path = Model::tunnelTableInfo(Model::TunnelTableIdentifier::ldp).path;
    writer_->doMount(path, Model::tunnelTableInfo(Model::TunnelTableIdentifier::ldp).typeName,
                     Model::sharedTable(Statehub::Access::write));
    table_ = Zol::dynamicPtrCast<Model::LdpTunnelTable>(writer_->getEntity(path));
    table_->collectionReadyIs(true);
  }
  ~Lab() {
    stopAgent(SIGKILL);
    std::filesystem::remove_all(directory_);
    std::filesystem::remove(log_);
  }

  // Returns when it is ready.
  void startAgent() {
    std::filesystem::remove(log_);
    agent_ = fork();
    if (agent_ == 0) {
      dup2(open(log_.c_str(), O_WRONLY | O_CREAT, 0600), 2);
      execl(TUNNEL_AGENT_PATH, TUNNEL_AGENT_PATH, "serve", "--state-dir", directory_.c_str(), nullptr);
      _exit(127);
    }
    for (std::string said; said.find("ready") == std::string::npos;) {
      usleep(1000);
      std::stringstream text;
      text << std::ifstream(log_).rdbuf();
      said = text.str();
    }
    reader_.entityManager()->rescan();  // the agent has made its files
  }
  // Its CPU time in seconds.
  double stopAgent(int signal) const {
    rusage used{};
    kill(agent_, signal);
    wait4(agent_, nullptr, 0, &used);
    const auto seconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
  }
  void awaitEntries(std::size_t count) const {
    while (reader_.fib()->entry().size() != count || !reader_.fib()->entry().collectionReady()) {
      usleep(10000);
    }
    usleep(500000);  // the RIBs
  }
  // Sequence numbers of RIBs and FIB.
  std::vector<std::uint64_t> sequences() const {
    std::vector<std::uint64_t> all = {reader_.fib()->entry().collectionControl().sequence(),
                                      reader_.rib(0)->collectionControl().sequence()};
    for (const auto& [type, wrapper] : reader_.protocolRibs()->protocolTunnelRib()) {
      all.push_back(wrapper->tunnelRib()->collectionControl().sequence());
    }
    return all;
  }

  void put(std::uint64_t index, std::uint32_t label) { table_->entryIs(entryOf(index, label)); }
  // Until the FIB has an entry of that tunnel which is not the one seen before.
  void awaitNews(std::uint64_t index) {
    const Model::TunnelId id(Model::TunnelType::ldpTunnel, index);
    Tunnel::TunnelFib::TunnelFibEntry entry;
    while (!reader_.fib()->entry().read(id, entry) || entry == seen_) {
    }
    seen_ = entry;
  }

 private:
  const std::string directory_ = "/dev/shm/serve-latency-" + std::to_string(getpid());
  const std::string log_ = directory_ + ".log";
  pid_t agent_ = -1;
  const Zol::Ptr<Statehub::EntityManager> writer_ = Zol::make<Statehub::EntityManager>(directory_);
  Zol::Ptr<Model::LdpTunnelTable> table_;
  Agent::AgentState reader_{Zol::make<Statehub::EntityManager>(directory_), Statehub::Access::read};
  Tunnel::TunnelFib::TunnelFibEntry seen_;
};

void publishToFib(benchmark::State& state) {
  Lab lab;
  std::vector<double> latencies;
  std::uint32_t label = 100;
  for (auto step : state) {
    usleep(100);
    const auto begin = Clock::now();
    lab.put(1, ++label);
    lab.awaitNews(1);
    latencies.push_back(microsecondsSince(begin));
    state.SetIterationTime(latencies.back() * 1e-6);
  }
  report(state, latencies);
}
BENCHMARK(publishToFib)->Iterations(5000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void oneChangeBehindABulkLoad(benchmark::State& state) {
  Lab lab;
  std::vector<double> latencies;
  std::uint32_t label = 100;
  lab.put(1, label);
  lab.awaitNews(1);
  for (auto step : state) {
    ++label;
    for (std::uint64_t index = 2; index < 100002; ++index) {
      lab.put(index, label);
    }
    const auto begin = Clock::now();
    lab.put(1, label);
    lab.awaitNews(1);
    latencies.push_back(microsecondsSince(begin));
    state.SetIterationTime(latencies.back() * 1e-6);
    sleep(3);  // the rest of the load
  }
  report(state, latencies);
}
BENCHMARK(oneChangeBehindABulkLoad)->Iterations(10)->UseManualTime()->Unit(benchmark::kMicrosecond);

void restart(benchmark::State& state) {
  Lab lab;
  constexpr std::size_t count = 100000;
  for (std::uint64_t index = 1; index <= count; ++index) {
    lab.put(index, static_cast<std::uint32_t>(index));
  }
  lab.awaitEntries(count);
  const auto before = lab.sequences();
  lab.stopAgent(SIGTERM);
  for (auto step : state) {
    lab.startAgent();
    state.SetIterationTime(lab.stopAgent(SIGTERM));
  }
  state.counters["writes"] = lab.sequences() == before ? 0 : 1;
  lab.startAgent();
}
BENCHMARK(restart)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

void wait(std::atomic<std::uint32_t>& word, std::uint32_t old) {
  while (word.load() == old) {
    syscall(SYS_futex, &word, FUTEX_WAIT, old, nullptr, nullptr, 0);
  }
}
void pass(std::atomic<std::uint32_t>& word) {
  ++word;
  syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void futexPingPong(benchmark::State& state) {
  auto* words = static_cast<std::atomic<std::uint32_t>*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t other = fork();
  if (other == 0) {
    for (std::uint32_t turn = 0;; ++turn) {
      wait(words[0], turn);
      pass(words[1]);
    }
  }
  std::vector<double> latencies;
  std::uint32_t turn = 0;
  for (auto step : state) {
    usleep(100);
    const auto begin = Clock::now();
    pass(words[0]);
    wait(words[1], turn++);
    latencies.push_back(microsecondsSince(begin));
    state.SetIterationTime(latencies.back() * 1e-6);
  }
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
  munmap(words, 4096);
  report(state, latencies);
}
BENCHMARK(futexPingPong)->Iterations(5000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
