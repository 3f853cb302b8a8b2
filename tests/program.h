// Running the built programs as a user does: arguments, input, a pipe or a
// terminal for the output, and the exit status.
#ifndef VELPROBE_TESTS_PROGRAM_H_
#define VELPROBE_TESTS_PROGRAM_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/prctl.h>
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
  pid_t pid() const { return child_; }

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

  // Everything that the program has shown once it ended.
  const std::string& output() { return read_until(std::string(1, '\0')); }

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

}  // namespace velprobe

#endif  // VELPROBE_TESTS_PROGRAM_H_
