#include <gtest/gtest.h>
#include <poll.h>

#include "runtime/Statehub/DirectoryWatch.h"
#include "tests/support/Process.h"

namespace Statehub {
namespace {

namespace fs = std::filesystem;

// A watch on the tables of a state directory with two files and a bell.
struct WatchScene {
  WatchScene() {
    for (const std::string& path : {table("a"), table("b"), state + "/.bell"}) {
      std::ofstream(path) << "bytes";
    }
    watch.answer();
  }
  std::string table(const std::string& name) const { return state + "/tunnel/table/" + name; }
  bool isNoticed() const {
    pollfd polled{watch.fd(), POLLIN, 0};
    return ::poll(&polled, 1, 0) == 1;
  }

  Support::ScratchDirectory scratch;
  const std::string state = scratch / "state";
  DirectoryWatch watch{state, {"tunnel/table"}};
};

// Fails if something that can change what is read goes unnoticed, or if a directory that went is not watched again.
TEST(DirectoryWatch, noticesWhatMayChangeATable) {
  const struct {
    const char* what;
    void (*make)(const WatchScene& scene);
  } cases[] = {
      {"a file comes", [](auto& s) { std::ofstream(s.table("c")); }},
      {"a file goes", [](auto& s) { fs::remove(s.table("a")); }},
      {"a file takes the place of another", [](auto& s) { fs::rename(s.table("b"), s.table("a")); }},
      {"a file is cut short", [](auto& s) { fs::resize_file(s.table("a"), 1); }},
      {"a file may be read by others", [](auto& s) { fs::permissions(s.table("a"), fs::perms(0644)); }},
      {"a writer closes its file", [](auto& s) { close(open(s.table("a").c_str(), O_RDWR | O_CLOEXEC)); }},
      {"the directory may be read by others", [](auto& s) { fs::permissions(s.table(""), fs::perms(0755)); }},
      {"the directory goes", [](auto& s) { fs::remove_all(s.state + "/tunnel"); }},
      {"the directory is moved", [](auto& s) { fs::rename(s.table(""), s.state + "/tunnel/other"); }},
      {"the state directory is moved", [](auto& s) { fs::rename(s.state, s.scratch / "other"); }},
      {"the bell is cut short", [](auto& s) { fs::resize_file(s.state + "/.bell", 1); }},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    WatchScene scene;
    EXPECT_FALSE(scene.isNoticed());
    each.make(scene);
    EXPECT_TRUE(scene.isNoticed());
    scene.watch.answer();
    scene.watch.answer();  // of the directories that were made again
    EXPECT_FALSE(scene.isNoticed());
    std::ofstream(scene.table("later"));
    EXPECT_TRUE(scene.isNoticed());
  }
}

}  // namespace
}  // namespace Statehub
