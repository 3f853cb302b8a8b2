#include "util/console.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/temp_folder.h"
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

TEST(InputLineTest, CutsAnswersAndKeepsTheRest) {
  TempFolder folder;
  const std::string path =
      folder.write("input", "\n\r\ny\r\n Y\rx\n0123456789abcdefghij\nn");
  ASSERT_NE(std::freopen(path.c_str(), "r", stdin), nullptr);
  char answer[8];
  for (const char* want :
       {"", "", "y", " Y", "0123456", "789abcd", "efghij", "n"}) {
    EXPECT_FALSE(input_line(answer, sizeof answer, ""));
    EXPECT_STREQ(answer, want);
  }
  ErrorText error = input_line(answer, sizeof answer, "");
  EXPECT_STREQ(error.c_str(), "fgets returned error");
}

// hidden_answer gives the answer, or the text of a failure.
std::string hidden_answer() {
  char answer[17] = "";
  const ErrorText error = input_line_noecho(answer, 16, "Password: ");
  return error ? error.c_str() : answer;
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
    int master;
    const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
    if (child == 0) {
      termios before, after;
      tcgetattr(0, &before);
      const bool as_wanted = hidden_answer() == row.answer;
      tcgetattr(0, &after);
      pollfd rest{0, POLLIN, 0};
      _exit(as_wanted && before.c_lflag == after.c_lflag &&
            poll(&rest, 1, 0) == 0);
    }
    const FileDescriptor screen(master);
    std::string shown = read_until(master, "Password: ");
    EXPECT_GT(write(master, row.typed.data(), row.typed.size()), 0);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 1) << row.typed;
    shown += read_until(master, "no more");
    EXPECT_EQ(shown, row.shown) << row.typed;
  }
}

TEST(InputLineNoechoTest, NeedsATerminal) {
  const auto ask_in_new_session = [] {
    _exit(setsid() > 0 && hidden_answer() == "Error opening /dev/tty");
  };
  EXPECT_EXIT(ask_in_new_session(), testing::ExitedWithCode(1), "");
}

}  // namespace
}  // namespace velprobe
