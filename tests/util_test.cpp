#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <string>

#include "support/temp_folder.h"
#include "util/error_text.h"
#include "util/file_replacement.h"
#include "util/printable_text.h"
#include "util/text.h"
#include "util/wildcard.h"

namespace velprobe {
namespace {

using std::string_literals::operator""s;

TEST(ErrorTextTest, TwoTextsLiveAtATime) {
  const char* first = format_error_text("%s", "first");
  const char* second = format_error_text("second: %s", first);
  EXPECT_STREQ(first, "first");
  const char* third = format_error_text("third: %s", second);
  EXPECT_STREQ(first, third);
  EXPECT_STREQ(second, "second: first");
  EXPECT_STREQ(third, "third: second: first");
  EXPECT_EQ(format_error_text("%300s", "end"), std::string(255, ' '));

  errno = ENOENT;
  EXPECT_STREQ(last_os_error_text(), "No such file or directory");
  EXPECT_EQ(errno, 0);
}

TEST(TextTest, CopyBoundedEndsWithinItsSize) {
  for (std::size_t size = 0; size <= 5; ++size) {
    char buffer[8] = "#######";
    copy_bounded(buffer, "abc", size);
    const std::string want = size == 0 ? "" : "abc"s.substr(0, size - 1) + '\0';
    EXPECT_EQ(std::string(buffer, 7), want + "#######"s.substr(want.size()));
  }
}

TEST(TextTest, ParseDecimal) {
  const struct {
    const char* text;
    std::uint64_t value;
    const char* rest;
  } cases[] = {
      {"  42abc", 42, "abc"},
      {" \t\n\v\f\r", 0, ""},
      {"18446744073709551615", UINT64_MAX, ""},
      {"18446744073709551617x", 1, "x"},  // wraps
  };
  for (const auto& row : cases) {
    const char* end = nullptr;
    EXPECT_EQ(parse_decimal(row.text, &end), row.value) << row.text;
    EXPECT_STREQ(end, row.rest);
  }
}

TEST(TextTest, ControlBytesBecomeQuestionMarks) {
  const struct {
    std::string text, want;
  } cases[] = {
      {"plain ~", "plain ~"},
      {"\x1b[2J\r\n\t\x01\x1f\x7f", "?[2J??????"},
      {"\xc2\x9b"
       "2J\xc2\xa0\xc2\x80",
       "??2J\xc2\xa0??"},  // U+009B, U+00A0, U+0080
      {"\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9a\x9b",
       "\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9a\x9b"},
      {"\x9b \xe9\x9b", "? \xe9?"},                       // outside UTF-8
      {"\xc0\x9b \xe0\x82\x9b", "\xc0? \xe0??"},          // overlong
      {"\xed\xa0\x9b \xf4\x9b\x9b", "\xed\xa0? \xf4??"},  // no such character
      {"\xf0\x9f\x9a", "\xf0??"},                         // cut
  };
  for (auto [text, want] : cases) {
    replace_control_bytes(text.data());
    EXPECT_EQ(text, want);
  }
}

// The rules of wildcard_match word by word, in exponential time.
bool match_by_the_rules(const char* text, const char* pattern) {
  if (*text == '\0') return pattern[std::strspn(pattern, "*")] == '\0';
  if (*pattern != '\0' && (*text == *pattern || *pattern == '?')) {
    return match_by_the_rules(text + 1, pattern + 1);
  }
  return *pattern == '*' && (match_by_the_rules(text, pattern + 1) ||
                             match_by_the_rules(text + 1, pattern) ||
                             match_by_the_rules(text + 1, pattern + 1));
}

TEST(WildcardTest, AgreesWithTheRulesOnRandomTexts) {
  std::mt19937 random(20240229);
  const auto random_text = [&random](std::size_t max_length) {
    std::string text(random() % (max_length + 1), '\0');
    for (char& c : text) c = "ab*?"[random() % 4];
    return text;
  };
  for (int i = 0; i < 100000; ++i) {
    const std::string text = random_text(7), pattern = random_text(5);
    ASSERT_EQ(wildcard_match(text.c_str(), pattern.c_str()),
              match_by_the_rules(text.c_str(), pattern.c_str()))
        << text << " against " << pattern;
  }
}

TEST(WildcardTest, LongPatternsNeitherOverflowNorTakeForever) {
  for (std::size_t stars : {127u, 128u, 300u}) {  // around the stack's share
    std::string pattern;
    for (std::size_t i = 0; i < stars; ++i) pattern += "*a";
    const std::string text(20000, 'a');
    EXPECT_EQ(wildcard_match(text.c_str(), pattern.c_str()), 1);
    EXPECT_EQ(wildcard_match((text + "b").c_str(), pattern.c_str()), 0);
  }
}

TEST(FileReplacementTest, NamesAndSizes) {
  char buffer[8] = "";
  EXPECT_EQ(make_backup_name(buffer, sizeof buffer, "a%snc"), 9);
  EXPECT_STREQ(buffer, "a%snc.b");
  TempFolder folder;
  std::uint64_t size = 0;
  EXPECT_FALSE(get_file_size(folder.write("file", "12345").c_str(), &size));
  EXPECT_EQ(size, 5u);
  EXPECT_STREQ(get_file_size("/no%s/file", &size).c_str(),
               "Error retrieving file size for /no%s/file: "
               "No such file or directory");
}

TEST(FileReplacementTest, ReplaceWithBackup) {
  using Content = std::optional<std::string>;
  constexpr const char* kNotRenamed = "Failed renaming new file to destination";
  const struct {
    Content old, fresh;
    const char* backup;
    int result;
    const char* text;
    Content new_destination, new_backup;
  } cases[] = {
      {"old", "new", "bak", 1, "No Error", "new", "old"},
      {{}, "new", "bak", 1, "No Error", "new", {}},
      {"old", "new", "no/bak", 0, "Failed linking to backup file", "new", {}},
      {"old", {}, "bak", 0, kNotRenamed, "old", "old"},
      {"old", {}, "no/bak", 0, kNotRenamed, "old", {}},
  };
  for (const auto& row : cases) {
    TempFolder folder;
    if (row.old) folder.write("file", *row.old);
    if (row.fresh) folder.write("new", *row.fresh);
    folder.write("bak", "stale");
    const char* text = nullptr;
    EXPECT_EQ(replace_with_backup(folder.path("file").c_str(),
                                  folder.path(row.backup).c_str(),
                                  folder.path("new").c_str(), &text),
              row.result);
    EXPECT_STREQ(text, row.text);
    EXPECT_EQ(folder.read("file"), row.new_destination);
    EXPECT_EQ(folder.read(row.backup), row.new_backup);
    EXPECT_EQ(folder.read("new"), std::nullopt);
  }
  // A new file that cannot take its place goes.
  TempFolder folder;
  const std::string fresh = folder.write("new", "new");
  const char* text;
  EXPECT_EQ(replace_with_backup("/", "/no/b", fresh.c_str(), &text), 0);
  EXPECT_EQ(folder.read("new"), std::nullopt);
}

TEST(FileReplacementTest, Rotation) {
  const auto rotated = [](const char* names, int generations) {
    TempFolder folder;
    for (const char* c = names; *c != '\0'; ++c) {
      folder.write(*c == '0' ? "log"s : "log."s + *c, std::string(1, *c));
    }
    ErrorText error =
        rotate_numbered_files(folder.path("log").c_str(), generations);
    std::string now = error ? error.c_str() : "";
    for (std::string name : {"log", "log.1", "log.2", "log.3", "log.4"}) {
      now += '/' + folder.read(name).value_or("");
    }
    return now;
  };
  EXPECT_EQ(rotated("013", 3), "//0/1//");
  EXPECT_EQ(rotated("01234", 3), "//0/1/2/4");
  EXPECT_EQ(rotated("012", 1), "/0/1/2//");
  EXPECT_EQ(rotated("12", 3),
            "Rename failed with code -1, error No such file or directory"
            "///1/2/");
}

}  // namespace
}  // namespace velprobe
