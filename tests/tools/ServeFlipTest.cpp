// Random bytes flipped all over the files of a state directory, under agent, publisher and reading tools.
#include <optional>
#include <random>

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Seeds.h"
#include "tests/tools/Lab.h"
#include "tests/tools/Played.h"

namespace Tools {
namespace {

using Random = std::mt19937;

// Who is there when the bytes flip: nobody, and then agent and publisher come together; nobody, and the publisher
// comes when the agent has found out; the agent, and they are bytes of publishers' tables.
enum class Scene : unsigned { nobody, nobodyForLong, agent };

class ServeFlip : public testing::Test, protected Lab {
 protected:
  const Support::EnvironmentVariable temporaryDirectory_{"TMPDIR", scratch() / ""};

  void restore() const {
    std::filesystem::remove_all(stateDirectory());
    copy(scratch() / "whole", stateDirectory());
  }
  static void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::filesystem::create_directories(to);
    std::filesystem::permissions(to, std::filesystem::perms(0750));
    for (const auto& each : std::filesystem::directory_iterator(from)) {
      if (each.is_directory()) {
        copy(each.path(), to / each.path().filename());
      } else if (each.is_regular_file()) {
        std::filesystem::copy_file(each.path(), to / each.path().filename());
      }
    }
  }
  std::vector<std::filesystem::path> files() const {
    std::vector<std::filesystem::path> all;
    for (const auto& each : std::filesystem::recursive_directory_iterator(stateDirectory())) {
      if (each.is_regular_file()) {
        all.push_back(each.path());
      }
    }
    std::sort(all.begin(), all.end());
    return all;
  }
  void flipSome(Random& random, Scene scene) const;
  void putRight(Support::Process& agent, const OrderedJson& expected) const;
};

// One to eight bytes of the file, half of them among those that are in use.
void flip(const std::filesystem::path& file, Random& random) {
  const std::string bytes = Support::contentsOf(file);
  std::vector<std::size_t> used;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (bytes[at] != 0) {
      used.push_back(at);
    }
  }
  std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
  for (auto flips = 1U + random() % 8U; flips > 0; --flips) {
    const std::size_t at = random() % 2 == 0 || used.empty() ? random() % bytes.size() : used[random() % used.size()];
    const char flipped = static_cast<char>(static_cast<unsigned char>(bytes[at]) ^ (1U << random() % 8));
    out.seekp(static_cast<std::streamoff>(at));
    out.write(&flipped, 1);
  }
}

bool says(const std::string& log, const char* what) { return log.find(what) != std::string::npos; }

void ServeFlip::flipSome(Random& random, Scene scene) const {
  const bool everywhere = random() % 4 == 0;
  for (const std::filesystem::path& file : files()) {
    const bool isInput = file.parent_path().filename() == "table";
    if ((everywhere || random() % 4 == 0) && (isInput || scene != Scene::agent)) {
      flip(file, random);
    }
  }
}

void ServeFlip::putRight(Support::Process& agent, const OrderedJson& expected) const {
  ASSERT_TRUE(agent.says("ready", 60)) << agentLog();
  ASSERT_TRUE(Support::becomes([&] { return comparable(document()) == expected; }, 60))
      << agentLog() << OrderedJson::diff(expected, comparable(document())).dump(1);
  ASSERT_EQ(agent.stop(), 0) << agentLog();
}

// Fails if anybody crashes or hangs, if a reader shows something else than what was written without damage being
// reported, or if publisher and agent do not put everything right.
TEST_F(ServeFlip, everybodyLivesAndReportsAndTheNextPublisherPutsItRight) {
  publishLab();
  const std::string scenario = scratch() / "lab.jsonl";
  const OrderedJson expected = comparable(document());
  ASSERT_EQ(Played(scenario).end().document["fib"], expected["fib"]);
  copy(stateDirectory(), scratch() / "whole");
  unsigned trials = 0;
  unsigned changed = 0;
  unsigned reported = 0;
  Support::forEachSeed(30, [&](unsigned seed) {
    ++trials;
    Random random(seed);
    const Scene scene = Scene(seed % 3);
    restore();
    std::filesystem::remove(scratch() / "agent.log");
    std::optional<Support::Process> agent;
    if (scene == Scene::agent) {
      agent.emplace(serve());
      ASSERT_TRUE(agent->says("ready", 60)) << agentLog();
    }
    flipSome(random, scene);
    const Answer state = ask({"state"});
    const Answer check = ask({"check"});
    ASSERT_LT(state.status, 128) << state.text;
    ASSERT_LT(check.status, 128) << check.text;
    ASSERT_LT(ask({"show", "tables"}).status, 128);
    reported += check.status != 0 ? 1U : 0U;
    if (comparable(document()) != expected) {
      ++changed;
      EXPECT_NE(check.status, 0) << "what is read is wrong, and nobody says so\n" << state.text;
    }
    if (scene != Scene::agent) {
      agent.emplace(serve());
    }
    if (scene == Scene::nobodyForLong) {
      ASSERT_TRUE(Support::becomes([&] { return says(agentLog(), "ready") || says(agentLog(), "waiting"); }))
          << agentLog();
    }
    ASSERT_EQ(publishAll({scenario}), 0) << Support::contentsOf(scratch() / "publish.log");
    putRight(*agent, expected);
  });
  std::cout << trials << " trials, " << reported << " with damage reported, " << changed
            << " in which less or other than was written was read\n";
}

}  // namespace
}  // namespace Tools
