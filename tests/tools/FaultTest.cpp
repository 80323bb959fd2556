// System calls that fail: each is reported with its object, its operation, its path and the system's reason.

#include <cerrno>
#include <cstring>

#include "tests/tools/Lab.h"

namespace Tools {
namespace {

struct Fault {
  int line;
  const char* call;
  int error;
  const char* path;  // part of it
  std::vector<std::string> command;
  std::string says;  // up to the system's reason
};

// Relative to the state directory, of which every command is given the name.
const Fault ofTheAgent[] = {
    {__LINE__, "openat", EACCES, "tunnel", {"serve"}, "/tunnel: directory cannot be opened: "},
    {__LINE__, "mkdirat", ENOSPC, "status", {"serve"}, "/tunnel/status: directory cannot be made: "},
    {__LINE__, "fchmod", EPERM, "/tunnel/", {"serve"}, "/tunnel/tunnelRibs/system: no new table can be made: "},
    {__LINE__, "fcntl", ENOLCK, "/tunnel/", {"serve"}, "/tunnel/tunnelRibs/system: no new table can be made: "},
    {__LINE__, "linkat", EROFS, "tunnelFib", {"serve"}, "/tunnel/tunnelFib: the new table cannot be named: "},
    {__LINE__,
     "posix_fallocate",
     ENOSPC,
     "/tunnel/",
     {"serve"},
     "/tunnel/tunnelRibs/system: cannot grow from 0 to 65536 bytes: "},
    {__LINE__, "openat", EMFILE, ".bell", {"serve"}, "/.bell: doorbell cannot be opened: "},
    {__LINE__, "mmap", ENOMEM, "/tunnel/", {"serve"}, "/tunnel/tunnelRibs/system: cannot be mapped: "},
    {__LINE__, "inotify_init1", EMFILE, "", {"serve"}, ": cannot be watched by inotify: "},
    {__LINE__,
     "inotify_add_watch",
     ENOSPC,
     "/tunnel/table",
     {"serve"},
     "/tunnel/table: cannot be watched by inotify: "},
    {__LINE__, "epoll_create1", EMFILE, "", {"serve"}, ": no descriptor to wait for the doorbell: "},
    {__LINE__, "eventfd", EMFILE, "", {"serve"}, "no descriptor to wake the event loop: "},
    {__LINE__, "signalfd", EMFILE, "", {"serve"}, "signals: no descriptor to receive them: "},
    {__LINE__, "socket", EMFILE, "", {"serve"}, "/agent.sock: no socket: "},
    {__LINE__, "bind", EACCES, "", {"serve"}, "/agent.sock: cannot be made: "},
    {__LINE__, "listen", EADDRINUSE, "", {"serve"}, "/agent.sock: no client can connect: "},
    {__LINE__, "none", EISDIR, "", {"serve", "--config", "/usr"}, "tunnel-agent: /usr: cannot be read: "},
};
const Fault ofTheTools[] = {
    {__LINE__, "openat", EACCES, "tunnelFib", {"show", "fib"}, "/tunnel/tunnelFib: table cannot be opened: "},
    {__LINE__, "fstatat", EIO, "ldp", {"show", "table", "ldp"}, "/tunnel/table/ldp: table cannot be examined: "},
    {__LINE__, "mmap", ENOMEM, "/tunnelFib", {"show", "fib"}, "/tunnel/tunnelFib: cannot be mapped: "},
    {__LINE__, "socket", EMFILE, "", {"trace", "show"}, "/agent.sock: no socket to connect with: "},
    {__LINE__, "connect", EACCES, "", {"trace", "show"}, "/agent.sock: cannot connect: "},
    {__LINE__, "fcntl", ENOLCK, "/ldp", {"publish", "--table", "ldp"}, "/tunnel/table/ldp: table cannot be locked: "},
    {__LINE__,
     "posix_fallocate",
     ENOSPC,
     "/ldp",
     {"publish", "--table", "ldp"},
     "/tunnel/table/ldp: no memory for its "},
    {__LINE__,
     "renameat2",
     EACCES,
     "rsvp",
     {"publish", "--table", "rsvp"},
     "/tunnel/table/rsvp: not a table of ours ("},
    {__LINE__, "none", EISDIR, "", {"publish", "/usr"}, "/usr: cannot be read: "},
};

class Faults : public testing::Test, protected Lab {
 protected:
  // The output of the command at its end; of an agent, as soon as it has the expected text.
  std::string saidUnder(const Fault& fault, const std::string& program, const std::string& state) const {
    std::vector<std::string> words = {
        "/usr/bin/env", std::string("LD_PRELOAD=") + FAULT_SHIM_PATH,
        std::string("FAULT=") + fault.call + ":" + std::to_string(fault.error) + ":" + fault.path, program};
    words.insert(words.end(), fault.command.begin(), fault.command.end());
    words.insert(words.end(), {"--state-dir", state});
    Support::Process process(words, scratch() / ("fault" + std::to_string(fault.line)));
    if (fault.command[0] != "serve") {
      process.wait();
    } else {
      (void)process.says(fault.says + std::strerror(fault.error));
    }
    return process.output();
  }
};

TEST_F(Faults, everyFailedCallIsReportedWithPathAndReason) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a sanitized program takes no library before the sanitizer's";
#endif
  for (const Fault& fault : ofTheAgent) {
    const std::string said = saidUnder(fault, TUNNEL_AGENT_PATH, scratch() / ("state" + std::to_string(fault.line)));
    EXPECT_NE(said.find(fault.says + std::strerror(fault.error)), std::string::npos)
        << "case in line " << fault.line << ": " << said;
  }
  publishLab();
  scratch().fileWith("state/tunnel/table/rsvp", "no table");
  for (const Fault& fault : ofTheTools) {
    const std::string said = saidUnder(fault, TUNNELCTL_PATH, stateDirectory());
    const std::size_t at = said.find(fault.says);
    EXPECT_TRUE(at != std::string::npos && said.find(std::strerror(fault.error), at) != std::string::npos)
        << "case in line " << fault.line << ": " << said;
  }
}

// Fails if a full output gives no reason, whether the text fits the stream's buffer or not; or if an empty list counts
// as a row for a program that reads it.
TEST_F(Faults, aFullOutputIsReportedWithItsReason) {
  publishLab();
  for (const std::string command : {"state", "show fib", "metrics", "show fib --label 99"}) {
    const std::string line = std::string(TUNNELCTL_PATH) + " " + command + " --state-dir " + stateDirectory();
    Support::Process process({"/bin/sh", "-c", line + " >/dev/full"}, scratch() / ("full " + command));
    const bool isEmpty = command.ends_with("99");
    EXPECT_EQ(process.wait(), isEmpty ? 0 : 1) << command;
    const char* const says = isEmpty ? "none\n" : "standard output: cannot be written: No space left on device";
    EXPECT_NE(process.output().find(says), std::string::npos) << command << process.output();
  }
}

// Fails if a missing permission looks like a lost state or a dead agent.
TEST_F(Faults, anotherUserIsToldOfTheMissingPermission) {
  if (geteuid() != 0 || !std::filesystem::exists("/usr/bin/setpriv")) {
    GTEST_SKIP() << "needs root and setpriv";
  }
  const Support::Process agent = serve();
  ASSERT_EQ(publishAll({scratch().fileWith("lab.jsonl", labScenario)}), 0);
  ASSERT_TRUE(agent.says("ready"));
  for (const auto mode : {0700U, 0711U}) {
    std::filesystem::permissions(scratch() / "", std::filesystem::perms(mode));
    for (const std::string command : {"show fib", "show tables", "state", "check", "verify", "why ldpTunnel/5",
                                      "metrics", "trace show", "resolve 10.0.0.5", "watch"}) {
      std::vector<std::string> words = {"/usr/bin/setpriv", "--reuid",     "65534", "--regid", "65534",
                                        "--clear-groups",   TUNNELCTL_PATH};
      std::istringstream parts(command);
      for (std::string word; parts >> word;) {
        words.push_back(word);
      }
      words.insert(words.end(), {"--state-dir", stateDirectory()});
      Support::Process process(words, scratch() / "denied");
      EXPECT_EQ(process.wait(), 1) << command;
      const std::string said = process.output();
      EXPECT_NE(said.find("Permission denied"), std::string::npos) << command << ": " << said;
      EXPECT_NE(said.find(stateDirectory()), std::string::npos) << command << ": " << said;
      EXPECT_EQ(said.find("no "), std::string::npos) << command << ": " << said;
      std::filesystem::remove(scratch() / "denied");
    }
  }
}

}  // namespace
}  // namespace Tools
