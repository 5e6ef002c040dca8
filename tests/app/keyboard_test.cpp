// Keys of a person in front of a running download, on a pseudo terminal.

#include "tests/app/Program.h"
#include "tests/support/Expectation.h"

#include <array>
#include <csignal>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utmp.h>

using namespace support;

namespace {

/// The program with a terminal of its own, which reads away what is shown.
class Terminal {
public:
  explicit Terminal(std::vector<std::string> arguments) {
    int inner = -1;
    if (::openpty(&_outer, &inner, nullptr, nullptr, nullptr) != 0)
      throw std::runtime_error("there are no pseudo terminals");
    std::vector<char*> argv;
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    _process = ::fork();
    if (_process == 0) {
      ::login_tty(inner);
      ::signal(SIGQUIT, SIG_DFL); // a script's background job, which the test may be, ignores it
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    _inner = inner;
    _reader = std::thread([this] {
      std::array<char, 4096> bytes;
      while (::read(_outer, bytes.data(), bytes.size()) > 0) {
      }
    });
  }
  ~Terminal() {
    if (_process > 0)
      ::kill(_process, SIGKILL), wait();
    ::close(_inner);
    _reader.join();
    ::close(_outer);
  }
  void press(char key) const { ASSERT_EQ(::write(_outer, &key, 1), 1); }
  void signal(int number) const { ::kill(_process, number); }
  bool takesKeysAtOnce() const {
    termios settings{};
    ::tcgetattr(_inner, &settings);
    return (settings.c_lflag & (ICANON | ECHO)) == 0;
  }
  /// As a shell does before it lets a job go on.
  bool isStopped() const {
    int status = 0;
    return ::waitpid(_process, &status, WUNTRACED) == _process && WIFSTOPPED(status);
  }
  int wait() {
    int status = 0;
    ::waitpid(_process, &status, 0);
    _process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

private:
  int _outer = -1, _inner = -1;
  pid_t _process = -1;
  std::thread _reader;
};

class Keys : public testing::Test, public ProgramFixture {
protected:
  void SetUp() override {
    server.serve("/movie.mp4", {std::string(400'000, 'm'), "\"v1\"", ""});
    Fault stall = stallingAfter(200'000, gate);
    server.once("/movie.mp4", stall);
    stall.stallAfter = 50'000; // of the rest
    server.once("/movie.mp4", stall);
  }
  std::vector<std::string> command() const {
    return {programPath(), "download", server.url("/movie.mp4"), "--library", library()};
  }
};

} // namespace

TEST_F(Keys, PauseResumeAndQuitAndTheTerminalIsAsItWas) {
  Terminal terminal(command());
  ASSERT_TRUE(gate->waitUntilReached(1));
  // What the server sent may still be on its way to the program, which then has nothing to go on from.
  ASSERT_TRUE(eventually([&] { return terminal.takesKeysAtOnce() && holdsPartial(1, false); }));
  terminal.press('p');
  ASSERT_TRUE(eventually([&] { return state() == "paused"; }));
  EXPECT_EQ(server.requests("/movie.mp4").size(), 1u);
  terminal.press('x');
  terminal.press('r');
  ASSERT_TRUE(server.waitForRequests("/movie.mp4", 2));
  EXPECT_NE(server.requests("/movie.mp4")[1].header("Range"), "");
  terminal.press('q');
  EXPECT_EQ(terminal.wait(), 130);
  EXPECT_FALSE(terminal.takesKeysAtOnce());
  EXPECT_EQ(state(), "paused");
}

TEST_F(Keys, StoppingGivesTheTerminalBackUntilItGoesOn) {
  Terminal terminal(command());
  ASSERT_TRUE(gate->waitUntilReached(1));
  ASSERT_TRUE(eventually([&] { return terminal.takesKeysAtOnce(); }));
  terminal.signal(SIGTSTP);
  EXPECT_TRUE(terminal.isStopped());
  EXPECT_FALSE(terminal.takesKeysAtOnce());
  terminal.signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return terminal.takesKeysAtOnce(); }));
  terminal.signal(SIGQUIT);
  EXPECT_EQ(terminal.wait(), 128 + SIGQUIT);
  EXPECT_FALSE(terminal.takesKeysAtOnce());
}
