#include "util/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "temp_folder.h"
#include "util/owners.h"

namespace velprobe {
namespace {

// read_until reads until what came ends with the given text, or for long.
std::string read_until(int descriptor, const std::string& end) {
  std::string text;
  pollfd wait{descriptor, POLLIN, 0};
  char c;
  while (!text.ends_with(end) && poll(&wait, 1, 10000) == 1 &&
         read(descriptor, &c, 1) == 1) {
    text += c;
  }
  return text;
}

// in_child runs a function in a process without a controlling terminal, which
// ends well when the function returns true.
template <typename Function>
pid_t in_child(Function function) {
  const pid_t child = fork();
  if (child == 0) _exit(setsid() >= 0 && function() ? 0 : 1);
  return child;
}

bool ended_well(pid_t child) {
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

TEST(InputLineTest, CutsAnswersAndKeepsTheRest) {
  const struct {
    std::string input;
    std::vector<std::string> answers;  // to the end of input
  } cases[] = {
      {"", {}},
      {"yes\nno\n", {"yes", "no"}},
      {"\n\r\ny\r\n", {"", "", "y"}},
      {"0123456789abcdefghij\nn", {"0123456", "789abcd", "efghij", "n"}},
      {" Y\rx\n", {" Y"}},
  };
  TempFolder folder;
  for (const auto& row : cases) {
    const std::string path = folder.write("input", row.input);
    ASSERT_NE(std::freopen(path.c_str(), "r", stdin), nullptr);
    char answer[8];
    for (const std::string& want : row.answers) {
      EXPECT_FALSE(input_line(answer, sizeof answer, ""));
      EXPECT_EQ(answer, want) << row.input;
    }
    ErrorText error = input_line(answer, sizeof answer, "");
    EXPECT_STREQ(error.c_str(), "fgets returned error") << row.input;
  }
}

// hidden_answer gives the answer, or the text of a failure.
std::string hidden_answer() {
  char answer[17] = "";
  const ErrorText error = input_line_noecho(answer, 16, "Password: ");
  return error ? error.c_str() : answer;
}

TEST(InputLineNoechoTest, NeedsATerminal) {
  const auto asks = [] { return hidden_answer() == "Error opening /dev/tty"; };
  EXPECT_TRUE(ended_well(in_child(asks)));
}

TEST(InputLineNoechoTest, HidesTheAnswerAndRestoresTheTerminal) {
  const struct {
    std::string typed, answer, shown;
  } cases[] = {
      {"in\003ter\034rupt\n", "in\003ter\034rupt", "Password: \r\n"},
      {"0123456789abcdefghij\n", "0123456789abcdef", "Password: \r\n"},
      {"\004", "read returned 0", "Password: "},
  };
  for (const auto& row : cases) {
    const FileDescriptor screen(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(screen.get()) + unlockpt(screen.get()), 0);
    const pid_t child = in_child([&] {
      // The first terminal that a session leader opens is its own.
      const int terminal = open(ptsname(screen.get()), O_RDWR | O_NONBLOCK);
      termios before, after;
      tcgetattr(terminal, &before);
      const bool as_wanted = hidden_answer() == row.answer;
      tcgetattr(terminal, &after);
      char rest;
      return as_wanted && before.c_lflag == after.c_lflag &&
             read(terminal, &rest, 1) < 0;
    });
    std::string shown = read_until(screen.get(), "Password: ");
    EXPECT_GT(write(screen.get(), row.typed.data(), row.typed.size()), 0);
    EXPECT_TRUE(ended_well(child)) << row.typed;
    shown += read_until(screen.get(), "no more");
    EXPECT_EQ(shown, row.shown) << row.typed;
  }
}

}  // namespace
}  // namespace velprobe
