// From a publisher's put to the FIB entry that another process can read, with 100 us between changes, the agent being a
// process of its own that sleeps in between; beside it two processes that wake each other through a futex. Then the
// same for one change behind a bulk load. Waiting for the FIB is spinning, so two processors are needed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
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
    agent_ = fork();
    if (agent_ == 0) {
      dup2(open("/dev/null", O_WRONLY), 2);
      execl(TUNNEL_AGENT_PATH, TUNNEL_AGENT_PATH, "serve", "--state-dir", directory_.c_str(), nullptr);
      _exit(127);
    }
    usleep(500000);
    const std::string path = Model::tunnelTableInfo(Model::TunnelTableIdentifier::ldp).path;
    writer_->doMount(path, Model::tunnelTableInfo(Model::TunnelTableIdentifier::ldp).typeName,
                     Model::sharedTable(Statehub::Access::write));
    table_ = Zol::dynamicPtrCast<Model::LdpTunnelTable>(writer_->getEntity(path));
    table_->collectionReadyIs(true);
  }
  ~Lab() {
    kill(agent_, SIGKILL);
    waitpid(agent_, nullptr, 0);
    std::filesystem::remove_all(directory_);
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
