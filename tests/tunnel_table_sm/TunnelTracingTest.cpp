// The process's trace file: its name, and what is in it after the process has died.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "runtime/Fastlog/RingMessage.h"
#include "tests/support/FibScene.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Tunnel {
namespace {

using TunnelTable::FibScene;

// The environment of a test, put back when it ends.
class Environment {
 public:
  explicit Environment(const std::map<std::string, std::string>& variables) {
    for (const char* name : {"FASTLOG_DISABLE", "FLFILE", "FASTLOGDIR"}) {
      const char* const value = std::getenv(name);
      before_[name] = value == nullptr ? std::nullopt : std::optional<std::string>(value);
      unsetenv(name);
    }
    for (const auto& [name, value] : variables) {
      setenv(name.c_str(), value.c_str(), 1);
    }
  }
  ~Environment() {
    for (const auto& [name, value] : before_) {
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    }
  }

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

TEST(TunnelTracing, fileNames) {
  struct Case {
    int line;
    std::map<std::string, std::string> variables;
    std::optional<std::string> name;
  };
  for (const Case& c : {Case{__LINE__, {}, "Tunnel-%d.fl"}, Case{__LINE__, {{"FASTLOGDIR", "/x"}}, "Tunnel.fl"},
                        Case{__LINE__, {{"FLFILE", ""}}, "Tunnel-%d.fl"},
                        Case{__LINE__, {{"FLFILE", "/x/y"}, {"FASTLOGDIR", "/x"}}, "/x/y"},
                        Case{__LINE__, {{"FASTLOG_DISABLE", ""}, {"FLFILE", "/x/y"}}, std::nullopt}}) {
    const Environment environment(c.variables);
    EXPECT_EQ(fastlogFileName(), c.name) << "case in line " << c.line;
  }
}

// Fails if what a killed process wrote last cannot be read, or the disabled one leaves a file.
TEST(TunnelTracing, outlivesTheProcess) {
  const std::string path = testing::TempDir() + "/tracing-" + std::to_string(getpid()) + ".fl";
  const pid_t child = fork();
  if (child == 0) {
    const Environment environment({{"FLFILE", path}});
    FibScene scene;
    std::vector<TunnelTable::MplsVia> vias;
    for (unsigned i = 1; i <= 513; ++i) {
      scene.put(scene.ldp(i, {TunnelTable::via("if" + std::to_string(i))}));
      if (i <= 512) {
        vias.push_back(TunnelTable::via("tunnel:ldpTunnel/" + std::to_string(i)));
      }
    }
    scene.put(scene.ldp(1, {TunnelTable::via("if1"), TunnelTable::via("if513")}));
    scene.put(scene.sr(1, vias));
    scene.settle();
    kill(getpid(), SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  const Fastlog::RingFileContents contents = Fastlog::readRingFile(path);
  std::filesystem::remove(path);
  EXPECT_TRUE(contents.problems.empty());
  ASSERT_EQ(contents.messages.size(), 1U);
  EXPECT_NE(contents.messages[0].find("TunnelFibEntry has too many tunnelVias: 513, (max 512)"), std::string::npos);
}

// Fails if damage in a trace file, or a file of another kind, stops its reader or spoils the other messages.
TEST(RingFile, damageIsReported) {
  const std::string path = testing::TempDir() + "/ring-" + std::to_string(getpid()) + ".fl";
  EXPECT_EQ(Fastlog::readRingFile(path).problems.size(), 1U);  // there is none
  Fastlog::RingFile::defaultFileIs(std::make_unique<Fastlog::RingFile>(path));
  static Fastlog::RingMessage message("here", 7, "count %i of %s");
  for (int i = 0; i < 5000; ++i) {
    message.write(i, "vias");
  }
  Fastlog::RingFile::defaultFileIs(nullptr);
  message.write(1, "dropped");
  const auto whole = Fastlog::readRingFile(path);
  EXPECT_TRUE(whole.problems.empty());
  ASSERT_EQ(whole.messages.size(), Fastlog::RingFile::messageCount);
  EXPECT_EQ(whole.messages.back(), "5000 here:7 count 4999 of vias");
  const auto size = std::filesystem::file_size(path);
  for (std::size_t at = 0; at < size; at += 1009) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(at));
    file.put(static_cast<char>(byte ^ 0xFF));
    file.close();
    EXPECT_LE(Fastlog::readRingFile(path).messages.size(), Fastlog::RingFile::messageCount);
  }
  EXPECT_FALSE(Fastlog::readRingFile(path).problems.empty());
  std::filesystem::resize_file(path, 100);
  EXPECT_EQ(Fastlog::readRingFile(path).messages.size(), 0U);
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace Tunnel
