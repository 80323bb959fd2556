#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "runtime/Fastlog/TraceSetting.h"
#include "runtime/Zol/Exception.h"

namespace Fastlog {
namespace {

int evaluated = 0;
int evaluate() { return ++evaluated; }

}  // namespace

namespace Source {

FASTLOG_DEFAULT_HANDLE("SourceSm")

int handleChange(bool detail) {
  if (detail)
    FASTLOG_TRACE(7, "detail " << evaluate());
  else
    FASTLOG_TRACE(8, "void Source::handleChange(bool) " << evaluate() << " " << true);
  return __LINE__ - 1;
}

}  // namespace Source

namespace {

struct Trace : testing::Test {
  Trace() {
    registry.traceDestinationIs([this](const TraceLine& line) {
      lines.push_back(std::string(line.handle) + " " + std::to_string(line.level) + " " + std::string(line.function) +
                      ":" + std::to_string(line.line) + " " + std::string(line.text));
    });
    evaluated = 0;
  }
  ~Trace() override {
    registry.traceDestinationIs(nullptr);
    registry.levelIs("*", 0);
  }
  TraceRegistry& registry = TraceRegistry::instance();
  std::vector<std::string> lines;
};

// Fails if a call that is off computes what it would have printed, or if the level counts the wrong way round.
TEST_F(Trace, callThatIsOffEvaluatesNothing) {
  Source::handleChange(true);
  Source::handleChange(false);
  EXPECT_EQ(evaluated, 0);
  registry.levelIs("SourceSm", 7);
  Source::handleChange(true);
  Source::handleChange(false);
  EXPECT_EQ(evaluated, 1);
  registry.levelIs("SourceSm", 8);
  const int line = Source::handleChange(false);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines.back(), "SourceSm 8 handleChange:" + std::to_string(line) + " void Source::handleChange(bool) 2 1");
}

// Fails if a level is lost because it was set before its source traced, or the later of two settings does not win.
TEST_F(Trace, levelsBelongToNames) {
  registry.levelIs("early", 5);
  const TraceHandle early("early"), other("other");
  EXPECT_EQ(early.level(), 5U);
  EXPECT_EQ(other.level(), 0U);
  EXPECT_TRUE(early.enabled(5));
  EXPECT_FALSE(early.enabled(6));
  EXPECT_FALSE(other.enabled(1));

  registry.levelIs("*", 3);
  registry.levelIs("early", 0);
  const TraceHandle again("early"), late("late");
  EXPECT_EQ(again.level(), 0U);
  EXPECT_EQ(late.level(), 3U);
  EXPECT_EQ(other.level(), 3U);
  registry.levelIs("early", 9);
  EXPECT_EQ(early.level(), 9U) << "every handle of the name";
  EXPECT_EQ(again.level(), 9U);
  registry.levelIs("*", 1);
  EXPECT_EQ(early.level(), 1U);
  EXPECT_THROW(registry.levelIs("early", 10), Zol::RangeException);
}

TEST_F(Trace, sourcesAreThoseWithAHandle) {
  registry.levelIs("nobody", 2);
  const auto has = [this](const std::string& name) {
    const auto sources = registry.sources();
    return std::count_if(sources.begin(), sources.end(), [&](const auto& each) { return each.first == name; });
  };
  {
    const TraceHandle one("twice"), two("twice");
    EXPECT_EQ(has("twice"), 1);
  }
  EXPECT_EQ(has("twice"), 0);
  EXPECT_EQ(has("nobody"), 0);
}

TEST_F(Trace, valuesPrintAsStreamsPrintThem) {
  registry.levelIs("values", 1);
  const TraceHandle handle("values");
  TraceHelper line = TraceHelper::createIfEnabled(handle, 1);
  ASSERT_TRUE(line);
  (line << std::uint8_t{65} << ' ' << true << ' ' << std::string("text") << ' ' << -1).trace("Values.cpp", 12, "print");
  EXPECT_EQ(lines, std::vector<std::string>{"values 1 print:12 65 1 text -1"});
  EXPECT_FALSE(TraceHelper::createIfEnabled(handle, 2));
}

// Fails if the destination dies under the line that replaces it.
TEST_F(Trace, destinationMayReplaceItself) {
  registry.levelIs("SourceSm", 8);
  const std::string name = "a captured string that is longer than any small buffer";
  registry.traceDestinationIs([this, name](const TraceLine&) {
    registry.traceDestinationIs(nullptr);
    lines.push_back(name);
  });
  Source::handleChange(false);
  EXPECT_EQ(lines, std::vector<std::string>{name});
  testing::internal::CaptureStderr();
  const int line = Source::handleChange(false);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SourceSm 8 handleChange:" + std::to_string(line) + " void Source::handleChange(bool) 2 1\n");
}

TEST(TraceSetting, text) {
  EXPECT_EQ(TraceSetting::parse("TunnelFibSm=8").source, "TunnelFibSm");
  EXPECT_EQ(TraceSetting::parse("TunnelFibSm=8").level, 8U);
  EXPECT_EQ(TraceSetting::parse("*=0").source, "*");
  EXPECT_EQ(TraceSetting::parse("A=9").level, 9U);
  for (const char* text : {"", "A", "A=", "=3", "A=x", "A=3x", "A=-1", "A= 3", "A==3"}) {
    EXPECT_THROW(TraceSetting::parse(text), Zol::ParseException) << text;
  }
  for (const char* text : {"A=10", "A=99999999999999999999"}) {
    EXPECT_THROW(TraceSetting::parse(text), Zol::RangeException) << text;
  }
}

}  // namespace
}  // namespace Fastlog
