// Clients of all kinds at a control socket, in one process; its clock can be moved on.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <filesystem>

#include "agent/ControlAddress.h"
#include "agent/ControlSocket.h"
#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tests/support/Process.h"

namespace Agent {
namespace {

class MovableTime final : public Quor::TimeSource {
 public:
  double now() const override { return real_.now() + moved; }
  double moved = 0;

 private:
  Quor::RealTimeSource real_;
};

class ControlSocketTest : public testing::Test {
 protected:
  // A client that never waits.
  class Client {
   public:
    explicit Client(const std::string& directory) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
      const ControlAddress address(directory);
      isConnected = connect(fd_.get(), address.get(), ControlAddress::size()) == 0;
    }
    void say(const std::string& text) { send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL); }
    void sayNoMore() { shutdown(fd_.get(), SHUT_WR); }
    // All that has come until now.
    const std::string& heard() {
      std::array<char, 65536> bytes;
      ssize_t got = 0;
      while ((got = recv(fd_.get(), bytes.data(), bytes.size(), 0)) > 0) {
        heard_.append(bytes.data(), static_cast<std::size_t>(got));
      }
      isHungUp = got == 0 || (errno != EAGAIN);
      return heard_;
    }
    bool isConnected = false;
    bool isHungUp = false;  // as of the last heard()

   private:
    const Memtab::Descriptor fd_;
    std::string heard_;
  };

  void SetUp() override {
    std::filesystem::create_directory(directory());
    open();
  }
  void open() { control_ = std::make_unique<ControlSocket>(directory(), scheduler_, loop_, answer_); }
  virtual std::string directory() const { return scratch_ / "state"; }
  Client client() const { return Client(directory()); }

  // Lets the loop do what there is to do.
  void turn(double seconds = 0.02) {
    stop_.scheduleTaskLowestDelay(seconds);
    loop_.run();
  }
  template <class F>
  bool becomes(F&& isSo) {
    return Support::becomes([&] {
      turn(0.005);
      return isSo();
    });
  }
  void passTheDeadline() {
    turn();
    time_.moved += ControlSocket::secondsIdleMax + 1;
    turn();
  }

  Support::ScratchDirectory scratch_;
  MovableTime time_;
  Quor::UnitSlicePolicy slicePolicy_{1};  // the task yields after every line
  Zol::Ptr<Quor::TaskScheduler> scheduler_ = Zol::make<Quor::TaskScheduler>(time_, slicePolicy_);
  Quor::EventLoop loop_{scheduler_};
  void stopLoop() { loop_.stop(); }
  Quor::OwnedTask<ControlSocketTest> stop_{*this, &ControlSocketTest::stopLoop, scheduler_, 9, "stop"};
  std::vector<std::string> lines_;  // that were answered
  ControlSocket::Answer answer_ = [this](std::string_view line) {
    lines_.emplace_back(line);
    return "re " + std::string(line);
  };
  std::unique_ptr<ControlSocket> control_;
};

TEST_F(ControlSocketTest, answersInOrderAndByTurns) {
  Client a = client();
  Client b = client();
  a.say("1\n2\n3\n");
  b.say("x\n\n  \n");
  ASSERT_TRUE(becomes([&] { return lines_.size() == 4; }));
  EXPECT_NE(lines_.back(), "x") << "a client with much to say does not keep the others waiting";
  a.say("4\n");
  a.sayNoMore();
  ASSERT_TRUE(becomes([&] { return a.heard() == "re 1\nre 2\nre 3\nre 4\n" && a.isHungUp; }));
  EXPECT_EQ(b.heard(), "re x\n");
  EXPECT_FALSE(b.isHungUp);
  b.sayNoMore();
  EXPECT_TRUE(becomes([&] { return control_->clients() == 0; }));
  EXPECT_EQ(control_->counters().requests, 5U);
}

TEST_F(ControlSocketTest, whoBreaksTheFormIsToldSoAndDropped) {
  struct Case {
    int line;
    std::string text;
    bool isEnd;  // of what the client says
    std::string heard;
  };
  const std::string full(ControlSocket::lineBytesMax, 'x');
  for (const Case& c :
       {Case{__LINE__, "half a line", true, "without an end"}, Case{__LINE__, "a\nhalf a line", true, "without an end"},
        Case{__LINE__, full + "y", false, "more than 65536 bytes"},
        Case{__LINE__, full + "y\n", false, "more than 65536 bytes"},
        Case{__LINE__, full + full, true, "more than 65536 bytes"}}) {
    Client one = client();
    one.say(c.text);
    if (c.isEnd) {
      one.sayNoMore();
    }
    EXPECT_TRUE(becomes([&] { return one.heard().find(c.heard) != std::string::npos && one.isHungUp; }))
        << "case in line " << c.line << ": " << one.heard();
    EXPECT_NE(one.heard().find("-32700"), std::string::npos);
  }
  EXPECT_EQ(control_->clients(), 0U);
  Client one = client();
  one.say(full + "\n");
  EXPECT_TRUE(becomes([&] { return one.heard() == "re " + full + "\n"; })) << "a line of just the limit";
}

TEST_F(ControlSocketTest, whoIsSilentOrSlowIsDropped) {
  Client silent = client();
  Client half = client();
  half.say("half");
  Client deaf = client();
  std::string line(60000, 'd');
  line.back() = '\n';
  for (int i = 0; i < 50; ++i) {
    deaf.say(line);
    turn(0.002);
  }
  EXPECT_LT(lines_.size(), 20U) << "nothing more is answered while an answer waits to be read";
  EXPECT_EQ(control_->clients(), 3U);
  passTheDeadline();
  EXPECT_EQ(control_->clients(), 0U);
  EXPECT_EQ(control_->counters().dropped, 3U);
  EXPECT_NE(silent.heard().find("none for 10 seconds"), std::string::npos) << silent.heard();
  EXPECT_NE(half.heard().find("no end of it"), std::string::npos) << half.heard();
  EXPECT_TRUE(silent.isHungUp && half.isHungUp);
  Client next = client();
  next.say("n\n");
  EXPECT_TRUE(becomes([&] { return next.heard() == "re n\n"; }));
  passTheDeadline();
  EXPECT_EQ(control_->clients(), 0U) << "also who has asked once";
  EXPECT_FALSE(scheduler_->nextDeadline()) << "without clients nothing wakes the agent";
}

TEST_F(ControlSocketTest, moreClientsThanPlacesAreTold) {
  std::deque<Client> clients;
  for (std::size_t i = 0; i < ControlSocket::clientsMax; ++i) {
    clients.emplace_back(directory());
    turn(0.001);
  }
  Client late = client();
  EXPECT_TRUE(becomes([&] { return late.heard().find("-32002") != std::string::npos && late.isHungUp; }));
  clients.pop_front();
  turn();
  Client next = client();
  next.say("n\n");
  EXPECT_TRUE(becomes([&] { return next.heard() == "re n\n"; }));
}

TEST_F(ControlSocketTest, takesThePlaceOfADeadAgentsSocketAndOfNothingElse) {
  control_.reset();
  EXPECT_FALSE(std::filesystem::exists(directory() + "/agent.sock"));
  {
    const Memtab::Descriptor dead(socket(AF_UNIX, SOCK_STREAM, 0));
    const ControlAddress address(directory());
    ASSERT_EQ(bind(dead.get(), address.get(), ControlAddress::size()), 0);
  }
  const mode_t before = umask(0);
  open();
  umask(before);
  struct stat facts {};
  ASSERT_EQ(stat((directory() + "/agent.sock").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0660U);
  Client one = client();
  one.say("1\n");
  EXPECT_TRUE(becomes([&] { return one.heard() == "re 1\n"; }));
  control_.reset();
  std::ofstream(directory() + "/agent.sock") << "precious";
  EXPECT_THROW(open(), Zol::InternalException);
  EXPECT_EQ(Support::contentsOf(directory() + "/agent.sock"), "precious");
}

class LongDirectory : public ControlSocketTest {
 protected:
  std::string directory() const override { return scratch_ / std::string(200, 'd'); }
};
TEST_F(LongDirectory, isReachedThoughAnAddressIsShorter) {
  Client one = client();
  ASSERT_TRUE(one.isConnected);
  one.say("1\n");
  EXPECT_TRUE(becomes([&] { return one.heard() == "re 1\n"; }));
}

}  // namespace
}  // namespace Agent
