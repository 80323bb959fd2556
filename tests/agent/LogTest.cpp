// The daemon's log: numbers at most once a minute, and few lines for each cause.

#include <gtest/gtest.h>

#include <algorithm>

#include "agent/CountLog.h"
#include "agent/Log.h"
#include "tests/agent/Scene.h"

namespace Agent {
namespace {

// What f logs, without the stamps.
template <class F>
std::string logged(F&& f) {
  testing::internal::CaptureStderr();
  f();
  std::istringstream lines(testing::internal::GetCapturedStderr());
  std::string texts;
  for (std::string line; std::getline(lines, line);) {
    texts += line.substr(line.find(": ") + 2) + "\n";
  }
  return texts;
}

// Fails if the last line of the log shows numbers that have long changed, or if every change is a line.
TEST(Log, numbersAreLoggedAtReadinessAndThenOnceAMinuteWhileTheyChange) {
  Scene scene;
  CountLog counts(scene.host());
  const auto pass = [&](int seconds) {
    EXPECT_EQ(scene.apply(R"({"advance": )" + std::to_string(seconds) + "}"), "");
    counts.look();
  };
  const auto put = [&](int index) {
    const std::string number = std::to_string(index);
    EXPECT_EQ(scene.apply(R"({"table": "ldp", "put": {"index": )" + number + R"(, "tep": "10.0.0.)" + number +
                          R"(/32", "vias": [{"nextHop": "192.0.2.1", "intf": "if1", "labels": [17]}]}})"),
              "");
    pass(10);
  };
  EXPECT_EQ(logged([&] { put(1); }), "") << "before the first drain";
  EXPECT_EQ(logged([&] { counts.ready(); }), "ready: 1 FIB entry, 1 RIB entry\n");
  EXPECT_EQ(logged([&] {
              for (int index = 2; index < 7; ++index) {
                put(index);
              }
            }),
            "");
  EXPECT_EQ(logged([&] { pass(20); }), "6 FIB entries, 6 RIB entries\n");
  EXPECT_EQ(logged([&] { pass(200); }), "");
}

// Fails if a hostile table can fill the log, or if no line says that lines are missing.
TEST(Log, aCauseHasAFewLinesOnly) {
  const std::string said = logged([] {
    for (int i = 0; i < 1000; ++i) {
      logBounded(LogLevel::info, "cause", "line " + std::to_string(i) + "\n\x1b[2J");
    }
    logBounded(LogLevel::info, "another cause", "another line");
  });
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), causeLinesMax + 1) << said;
  EXPECT_TRUE(said.starts_with("line 0\\u000a\\u001b[2J\n")) << said;
  EXPECT_NE(said.find("suppressed for a while)\nanother line\n"), std::string::npos) << said;
}

}  // namespace
}  // namespace Agent
