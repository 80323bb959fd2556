// The ring file: which lines it holds, and what its readers make of files that others wrote.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "runtime/Fastlog/RingMessage.h"
#include "runtime/Fastlog/RingReader.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Fastlog/TraceRegistry.h"
#include "runtime/Zol/Exception.h"
#include "tests/support/Process.h"

namespace Fastlog {
namespace {

using Support::Process;
namespace Fs = std::filesystem;

FASTLOG_DEFAULT_HANDLE("RingSm")

struct Ring : testing::Test {
  ~Ring() override {
    RingFile::defaultFileIs(nullptr);
    TraceRegistry::instance().levelIs("*", 0);
    TraceRegistry::instance().traceDestinationIs(nullptr);
  }
  // Opens the process's ring file; what goes to the trace destination is counted.
  void open() {
    RingFile::defaultFileIs(std::make_unique<RingFile>(path, smallBytes));
    TraceRegistry::instance().traceDestinationIs([this](const TraceLine&) { ++sent; });
  }
  // Level and text of each line that is not a flood's.
  std::vector<std::string> texts() const {
    std::vector<std::string> all;
    for (const RingLine& line : RingReader(path).read().lines) {
      all.push_back(std::to_string(line.level) + " " + line.text);
    }
    return all;
  }
  static void traceEach() {
    FASTLOG_TRACE(3, "damage");
    FASTLOG_TRACE(5, "converged");
    FASTLOG_TRACE(6, "reviewed");
    FASTLOG_TRACE(8, "entry");
  }
  using Texts = std::vector<std::string>;

  static constexpr std::size_t smallBytes = 512 * 65;  // 16 events and 48 details
  Support::ScratchDirectory scratch;
  const std::string path = scratch / "Tunnel.fl";
  int sent = 0;
};

// Fails if a line of an enabled level has no place in the ring, or levels that are off cost lines.
TEST_F(Ring, holdsEventsAndTheLevelsThatAreSet) {
  traceEach();
  open();
  traceEach();
  EXPECT_EQ(texts(), (Texts{"3 damage", "5 converged"}));
  EXPECT_EQ(sent, 0) << "the destination has what is set";
  TraceRegistry::instance().levelIs("*", 9);
  traceEach();
  EXPECT_EQ(texts(), (Texts{"3 damage", "5 converged", "3 damage", "5 converged", "6 reviewed", "8 entry"}));
  EXPECT_EQ(sent, 4);
  TraceRegistry::instance().levelIs("*", 0);
  traceEach();
  EXPECT_EQ(texts().size(), 8U) << "events cannot be lost by switching tracing off";
  RingFile::defaultFileIs(nullptr);
  traceEach();
  EXPECT_EQ(texts().size(), 8U);
}

TEST_F(Ring, detailsOverwriteNoEvent) {
  open();
  FASTLOG_TRACE(4, "configured");
  TraceRegistry::instance().levelIs("RingSm", 8);
  for (int i = 0; i < 1000; ++i) {
    FASTLOG_TRACE(8, "detail " << i);
  }
  const auto all = texts();
  ASSERT_EQ(all.size(), 49U);
  EXPECT_EQ(all.front(), "4 configured");
  EXPECT_EQ(all.back(), "8 detail 999");
}

// Fails if thousands of tunnels that are withdrawn at once leave no event before them.
TEST_F(Ring, aFloodOfEventsOfOneCallIsLimited) {
  TraceSite site;
  std::map<std::uint64_t, int> admitted;
  for (std::uint64_t second = 1; second <= 40; ++second) {
    for (int i = 0; i < 1000; ++i) {
      admitted[second] += site.admits(second) ? 1 : 0;
    }
  }
  EXPECT_EQ(admitted[1], static_cast<int>(TraceSite::burstMax));
  EXPECT_EQ(admitted[10], 0);
  EXPECT_EQ(admitted[11] + admitted[21] + admitted[31], 3);
  EXPECT_EQ(site.takeLeftOut(), 40'000U - TraceSite::burstMax - 3);
  EXPECT_TRUE(site.admits(50) && site.admits(50)) << "a burst ends";

  RingFile::defaultFileIs(std::make_unique<RingFile>(path));
  for (int i = 0; i < 5000; ++i) {
    FASTLOG_TRACE(5, "withdrawn " << i);
  }
  const auto all = texts();
  ASSERT_GE(all.size(), TraceSite::burstMax);
  EXPECT_LE(all.size(), TraceSite::burstMax + 1) << "1 more if this took 10 s";
  EXPECT_NE(all[TraceSite::burstMax - 1].find("left out"), std::string::npos);
}

void traceInLambda(int) {
  const auto inner = [](bool) { [] { FASTLOG_TRACE(1, "in a lambda"); }(); };
  inner(true);
}

TEST_F(Ring, aLineNamesTheFunctionAroundItsLambda) {
  open();
  traceInLambda(1);
  static RingMessage message("here", 7, "count %i of %s, %i more");
  message.write(5, std::string("vias"), -1);
  RingFile::note("agent", 6, "two\nlines\x1b[31m");
  const auto lines = RingReader(path).read().lines;
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].function, "traceInLambda");
  EXPECT_EQ(lines[1].text, "count 5 of vias, -1 more");
  EXPECT_EQ(textOf(lines[2]).substr(27), " agent 5 two?lines?[31m");
  RingLine moment{1, 1'700'000'000'123'456'789, 3, 12, "RingSm", "f", "x"};
  EXPECT_EQ(textOf(moment), "2023-11-14T22:13:20.123456Z RingSm 3 f:12 x");
}

// Fails if starting a process costs a file that is no trace file, such as a device that FLFILE names.
TEST_F(Ring, onlyTraceFilesAreReplaced) {
  open();
  FASTLOG_TRACE(3, std::string(3000, 'x'));
  EXPECT_EQ(texts().at(0).size(), 2U + 512 - 32 - 6 - std::string("TestBody").size());
  EXPECT_EQ(texts().at(0).substr(400).find("..."), texts().at(0).size() - 400 - 3) << "cut";
  open();
  EXPECT_TRUE(texts().empty());
  EXPECT_EQ(RingReader(path + ".1").read().lines.size(), 1U);
  scratch.fileWith("text", "a text");
  scratch.fileWith("previous.fl.1", "a text");
  RingFile(scratch / "previous.fl", smallBytes);
  mkfifo((scratch / "fifo").c_str(), 0600);
  Fs::create_symlink("text", scratch / "link");
  const std::pair<const char*, const char*> cases[] = {{"text", "another kind"},
                                                       {"previous.fl", "previous.fl.1: another kind"},
                                                       {"fifo", "not a regular file"},
                                                       {"link", "symbolic links"},
                                                       {"none/x", "No such file or directory"}};
  for (const auto& [name, problem] : cases) {
    try {
      RingFile file(scratch / name, smallBytes);
      ADD_FAILURE() << name;
    } catch (const Zol::Exception& error) {
      EXPECT_NE(std::string(error.what()).find(problem), std::string::npos) << error.what();
    }
  }
  EXPECT_EQ(Support::contentsOf(scratch / "text"), "a text");
  EXPECT_TRUE(Fs::exists(scratch / "previous.fl")) << "the file in use stays when there is no place for it";
}

// Fails if a damaged byte makes a line up, hides the lines of other slots, or leads a reader out of the file.
TEST_F(Ring, everyDamagedByteIsNoticed) {
  {
    RingFile file(path, 512 * 9);
    for (unsigned i = 0; i < 8; ++i) {
      file.write({"RingSm", 2 + i, "", 1, "f", "line " + std::to_string(i)});
    }
  }
  const std::string whole = Support::contentsOf(path);
  const auto before = texts();
  const std::set<std::string> known(before.begin(), before.end());
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string bytes = whole;
    bytes[at] = static_cast<char>(~bytes[at]);
    scratch.fileWith("Tunnel.fl", bytes);
    try {
      const RingContents contents = RingReader(path).read();
      EXPECT_GE(contents.lines.size() + contents.damaged, before.size()) << at;
      EXPECT_LE(contents.damaged, 1U) << at;
      for (const RingLine& line : contents.lines) {
        EXPECT_TRUE(known.contains(std::to_string(line.level) + " " + line.text)) << at << ": " << line.text;
      }
    } catch (const Zol::Exception&) {
      EXPECT_LT(at, 20U) << "damage outside the header";
    }
  }
}

// Fails if a reader prints a line that its writer has half written.
TEST_F(Ring, aHalfWrittenLineIsLeftOut) {
  RingFile file(path, 512 * 5);  // one slot for events
  file.write({"RingSm", 3, "", 1, "f", "a first line"});
  const std::string before = Support::contentsOf(path);
  file.write({"RingSm", 3, "", 1, "f", "the second line"});
  const std::string after = Support::contentsOf(path);
  std::map<std::string, int> read;
  for (std::size_t written = 512; written <= 1024; ++written) {
    scratch.fileWith("half.fl", after.substr(0, written) + before.substr(written));
    const RingContents contents = RingReader(scratch / "half.fl").read();
    ASSERT_EQ(contents.lines.size() + contents.damaged, 1U);
    ++read[contents.lines.empty() ? "" : contents.lines[0].text];
  }
  EXPECT_GE(read["a first line"], 1) << "before its first byte";
  EXPECT_GT(read["the second line"], 400);
  EXPECT_EQ(read.size(), 3U) << "no mixture";
}

// ---- the program ----------------------------------------------------------------------------------------------------

struct FastlogProgram : Ring {
  Process start(std::vector<std::string> words, const std::string& output) const {
    words.insert(words.begin(), FASTLOG_PATH);
    return Process(words, scratch / output);
  }
};

TEST_F(FastlogProgram, saysWhatCannotBeRead) {
  open();
  FASTLOG_TRACE(4, "configured");
  RingFile::defaultFileIs(nullptr);
  std::string bytes = Support::contentsOf(path);
  scratch.fileWith("short.fl", bytes.substr(0, 1000));
  bytes[8] = 1;
  scratch.fileWith("old.fl", bytes);
  bytes[8] = 2;
  bytes[560] = 'x';
  scratch.fileWith("damaged.fl", bytes);
  std::string endless = bytes;
  std::fill(endless.begin() + 12, endless.begin() + 20, '\xFF');
  scratch.fileWith("endless.fl", endless);
  scratch.fileWith("text", "not a trace file at all");
  scratch.fileWith("empty", "");
  struct Case {
    int line;
    std::vector<std::string> words;
    int status;
    const char* says;
  };
  const std::string in = scratch / "";
  const Case cases[] = {
      {__LINE__, {path}, 0, "Z RingSm 4 TestBody:"},
      {__LINE__, {"--help"}, 0, "--follow"},
      {__LINE__, {}, 2, "no file is named"},
      {__LINE__, {"--nonsense"}, 2, "unknown option --nonsense"},
      {__LINE__, {"--follow", path, path}, 2, "takes one file"},
      {__LINE__, {in + "none.fl"}, 1, "none.fl: cannot be opened: No such file or directory"},
      {__LINE__, {in}, 1, "is a directory"},
      {__LINE__, {"/dev/null"}, 1, "/dev/null: is not a regular file"},
      {__LINE__, {in + "text"}, 1, "text: is not a trace file"},
      {__LINE__, {in + "empty"}, 1, "empty: is empty"},
      {__LINE__, {in + "old.fl"}, 1, "of version 1; this program reads version 2"},
      {__LINE__, {in + "short.fl"}, 1, "its size of 1000 bytes does not agree"},
      {__LINE__, {in + "endless.fl"}, 1, "does not agree"},
      {__LINE__, {in + "damaged.fl"}, 1, "is damaged: 1 line cannot be read and is left out"},
      {__LINE__, {in + "none.fl", path}, 1, "Z RingSm 4 TestBody:"},
      {__LINE__, {"--follow", in + "none.fl"}, 1, "No such file or directory"},
  };
  for (const Case& c : cases) {
    Process program = start(c.words, "output" + std::to_string(c.line));
    EXPECT_EQ(program.wait(), c.status) << "case in line " << c.line;
    EXPECT_NE(program.output().find(c.says), std::string::npos) << "case in line " << c.line << program.output();
  }
  Process full({"/bin/sh", "-c", FASTLOG_PATH " " + path + " >/dev/full"}, scratch / "full");
  EXPECT_EQ(full.wait(), 1);
  EXPECT_NE(full.output().find("standard output: cannot be written: No space left"), std::string::npos);
}

// Fails if a line of a living process is lost, printed twice or not printed, or the next process is not followed.
TEST_F(FastlogProgram, followsALivingProcess) {
  open();
  const Process program = start({"--follow", path}, "output");
  for (const char* const text : {"first", "second"}) {
    FASTLOG_TRACE(3, text);
    ASSERT_TRUE(program.says(text)) << program.output();
  }
  open();
  for (int i = 0; i < 10; ++i) {
    FASTLOG_TRACE(3, "third " << i);
  }
  ASSERT_TRUE(program.says("third 9")) << program.output();
  FASTLOG_TRACE(3, "last");
  ASSERT_TRUE(program.says("last")) << program.output();
  const std::string all = program.output();
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 14) << all;  // 13 lines, and that the file was replaced
}

}  // namespace
}  // namespace Fastlog
