// Running the built programs as a user does: arguments, input, a pipe or a
// terminal for the output, and the exit status.
#ifndef VELPROBE_TESTS_PROGRAM_H_
#define VELPROBE_TESTS_PROGRAM_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <pty.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "util/owners.h"

namespace velprobe {

struct Options {
  std::string input = {};
  bool on_terminal = false;
  // Runs in the child, before the program.
  std::function<void()> prepare = {};
};

// Program is one running child; standard output and error arrive in one text.
class Program {
 public:
  Program(std::vector<std::string> command, const Options& options = {}) {
    int in[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    int out[2];
    if (options.on_terminal) {
      EXPECT_EQ(openpty(&out[0], &out[1], nullptr, nullptr, nullptr), 0);
      fcntl(out[0], F_SETFD, FD_CLOEXEC);
    } else {
      EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    }
    child_ = fork();
    if (child_ == 0) {
      // Nothing outlives a test that died.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(out[1], 2);
      if (options.prepare) options.prepare();
      std::vector<char*> arguments;
      for (std::string& word : command) arguments.push_back(word.data());
      arguments.push_back(nullptr);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    close(out[1]);
    output_ = FileDescriptor(out[0]);
    // Written while both ends are open here: a child that is gone already does
    // not turn it into a SIGPIPE.
    const FileDescriptor input_reader(in[0]), input(in[1]);
    const auto size = static_cast<ssize_t>(options.input.size());
    EXPECT_EQ(write(input.get(), options.input.data(), options.input.size()),
              size);
  }
  ~Program() {
    if (child_ > 0) {
      kill(SIGKILL);
      wait();
    }
  }

  void kill(int signal) const { ::kill(child_, signal); }

  // Reads on until the output holds text, or to its end.
  const std::string& read_until(const std::string& text) {
    char buffer[4096];
    while (shown_.find(text) == std::string::npos) {
      const ssize_t count = ::read(output_.get(), buffer, sizeof buffer);
      if (count <= 0) break;
      shown_.append(buffer, static_cast<std::size_t>(count));
    }
    return shown_;
  }

  // Nobody reads from now on.
  void close_output() { output_ = FileDescriptor(); }

  // Everything that the program has shown once it ended.
  const std::string& output() { return read_until(std::string(1, '\0')); }

  // Waits until a signal stops the program; false when it ends instead.
  bool is_stopped() const {
    siginfo_t what{};
    waitid(P_PID, static_cast<id_t>(child_), &what,
           WSTOPPED | WEXITED | WNOWAIT);
    return what.si_code == CLD_STOPPED;
  }

  bool is_ended() const {
    siginfo_t what{};
    waitid(P_PID, static_cast<id_t>(child_), &what,
           WEXITED | WNOHANG | WNOWAIT);
    return what.si_pid != 0;
  }

  int wait() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t child_;
  FileDescriptor output_;
  std::string shown_;
};

struct Finished {
  std::string output;
  int status;
};

inline Finished run(const std::vector<std::string>& command,
                    const Options& options = {}) {
  Program program(command, options);
  std::string output = program.output();
  return {std::move(output), program.wait()};
}

// enter_own_network leaves this process nothing but a loopback: no query of a
// scan gets out of it. False where the system does not allow that.
inline bool enter_own_network() {
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  ifreq loopback{.ifr_ifrn = {"lo"}, .ifr_ifru = {}};
  loopback.ifr_flags = IFF_UP;
  return ioctl(socket.get(), SIOCSIFFLAGS, &loopback) == 0;
}

// Server is a running velstandin, on a port of the system's choice unless the
// options name one.
struct Server : Program {
  explicit Server(std::vector<std::string> options = {})
      : Program(command_of(std::move(options))) {
    const std::string& line = read_until("\n");
    EXPECT_TRUE(line.starts_with("Listening on ")) << line;
    port = std::stoi(line.substr(line.find(':') + 1));
  }
  static std::vector<std::string> command_of(std::vector<std::string> options) {
    options.insert(options.begin(), {VELSTANDIN_PROGRAM, "--port", "0"});
    return options;
  }

  // The line of a configuration file for it.
  std::string port_line() const {
    return "server_port=" + std::to_string(port) + "\n";
  }

  int port = 0;
};

}  // namespace velprobe

#endif  // VELPROBE_TESTS_PROGRAM_H_
