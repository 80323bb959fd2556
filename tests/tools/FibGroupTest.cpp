// Changes of the FIB that belong together, as another process sees them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "agent/AgentState.h"
#include "tests/support/Process.h"

namespace Tools {
namespace {

namespace Fib = Tunnel::TunnelFib;
using Tunnel::TunnelTable::EncapId;
using Tunnel::TunnelTable::EncapType;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelType;

const TunnelId tunnel(TunnelType::ldpTunnel, 5);

void write(Fib::TunnelFib& fib, std::uint32_t encap, std::uint32_t label) {
  const EncapId id(EncapType::labelStack, encap);
  const Ipkit::MplsLabelOperation::Label labels[] = {label};
  fib.labelStackEncap().entryIs({id, Ipkit::MplsLabelOperation::push(labels)});
  Fib::TunnelVia via;
  via.encapIdIs(id);
  Fib::TunnelFibEntry entry(tunnel);
  entry.tunnelViaRef().append(via);
  fib.entry().entryIs(entry);
}
void remove(Fib::TunnelFib& fib, std::uint32_t encap) {
  fib.entry().entryDel(tunnel);
  fib.labelStackEncap().entryDel(EncapId(EncapType::labelStack, encap));
}

// Each as one change. What a reader of another process is to hear of it: entries, encapsulations.
struct Step {
  const char* what;
  void (*make)(Fib::TunnelFib& fib);
  std::size_t entries;
  std::size_t encaps;
};
const Step steps[] = {
    {"first entry", [](auto& fib) { write(fib, 1, 100); }, 1, 1},
    {"the same again", [](auto& fib) { write(fib, 1, 100); }, 0, 0},
    {"deleted and written again",
     [](auto& fib) {
       remove(fib, 1);
       write(fib, 1, 100);
     },
     0, 0},
    {"there and back",
     [](auto& fib) {
       write(fib, 2, 200);
       remove(fib, 2);
       write(fib, 1, 300);
       write(fib, 1, 100);
     },
     0, 0},
    {"many outcomes, the last of which counts",
     [](auto& fib) {
       for (std::uint32_t encap = 2; encap < 50; ++encap) {
         write(fib, encap, encap);
         fib.labelStackEncap().entryDel(EncapId(EncapType::labelStack, encap));
       }
       write(fib, 1, 100);
       write(fib, 7, 700);
       fib.labelStackEncap().entryDel(EncapId(EncapType::labelStack, 1));
     },
     1, 2},
    {"gone", [](auto& fib) { remove(fib, 7); }, 1, 1},
    {"never there",
     [](auto& fib) {
       write(fib, 8, 800);
       remove(fib, 8);
     },
     0, 0},
};

// Makes a step for each byte that it is sent, and answers with one.
class Writer {
 public:
  explicit Writer(const std::string& directory) {
    if (pipe(orders_.data()) != 0 || pipe(answers_.data()) != 0) {
      std::abort();
    }
    pid_ = fork();
    if (pid_ == 0) {
      run(directory);
    }
    awaitAnswer();
  }
  ~Writer() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  void makeNextStep() const {
    [[maybe_unused]] const auto written = ::write(orders_[1], "", 1);
    awaitAnswer();
  }

 private:
  [[noreturn]] void run(const std::string& directory) const {
    {
      const Agent::AgentState state(Zol::make<Statehub::EntityManager>(directory), Statehub::Access::write);
      char order = 0;
      [[maybe_unused]] auto answered = ::write(answers_[1], "", 1);
      for (const Step& step : steps) {
        if (read(orders_[0], &order, 1) != 1) {
          break;
        }
        state.fib()->entry().change([&] { step.make(*state.fib()); });
        answered = ::write(answers_[1], "", 1);
      }
    }
    _exit(0);
  }
  void awaitAnswer() const {
    char answer = 0;
    ASSERT_EQ(read(answers_[0], &answer, 1), 1);
  }

  std::array<int, 2> orders_{};
  std::array<int, 2> answers_{};
  pid_t pid_ = -1;
};

template <class Key>
struct Ear final : Zol::Listener<Key> {
  using Zol::Listener<Key>::channelIs;
  void onKey(const Key& key) override { heard.push_back(key); }
  std::vector<Key> heard;
};

// Fails if a change whose outcome is what stood already moves the sequence or notifies, or if a key is notified twice.
TEST(FibGroup, tellsReadersOfItsOutcomeAlone) {
  const Support::ScratchDirectory scratch;
  const Writer writer(scratch / "state");
  const auto manager = Zol::make<Statehub::EntityManager>(scratch / "state");
  const Agent::AgentState state(manager, Statehub::Access::read);
  const Fib::TunnelFib& fib = *state.fib();
  state.fib()->entry().follow();
  state.fib()->labelStackEncap().follow();
  Ear<TunnelId> entries;
  Ear<EncapId> encaps;
  entries.channelIs(&fib.entry().entryChannel());
  encaps.channelIs(&fib.labelStackEncap().entryChannel());
  const Memtab::MirrorStore& mirror = *manager->mirror(Agent::fibPath);
  for (const Step& step : steps) {
    const std::uint64_t before = mirror.reader().sequence();
    writer.makeNextStep();
    EXPECT_EQ(manager->hasNews(), step.entries + step.encaps != 0) << step.what;
    EXPECT_EQ(mirror.reader().sequence(), before + step.entries + step.encaps) << step.what;
    while (manager->poll(1)) {
    }
    EXPECT_EQ(entries.heard.size(), step.entries) << step.what;
    EXPECT_EQ(encaps.heard.size(), step.encaps) << step.what;
    entries.heard.clear();
    encaps.heard.clear();
  }
}

}  // namespace
}  // namespace Tools
