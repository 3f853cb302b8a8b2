#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "config/agent_config.h"
#include "config/settings.h"
#include "support/streams.h"
#include "support/temp_folder.h"
#include "util/owners.h"

namespace velprobe {
namespace {

using std::string_literals::operator""s;
using Values = std::map<std::string, std::string>;  // by key

const Values kAll = {
    {"domain", "D"}, {"name", "N"}, {"server_port", "1"}, {"server_list", "S"}};

ConfigKeyList config_keys;

void set_values(const Values& values) {
  for (ConfigKey* key = config_keys.head(); key; key = key->next) {
    const auto value = values.find(key->key);
    key->value = value == values.end() ? nullptr : copy_text(value->second);
  }
}

Values get_values() {
  Values values;
  for (ConfigKey* key = config_keys.head(); key; key = key->next) {
    if (key->value) values[key->key] = key->value.get();
  }
  return values;
}

// process gives the error's text, empty on success.
std::string process(const std::string& path, ConfigMode mode) {
  return text_of(process_config_file(path.c_str(), config_keys.head(), mode));
}

std::string rewrite(const std::string& path, const Values& values) {
  set_values(values);
  return process(path, ConfigMode::kWrite);
}

TEST(ConfigReadTest, Syntax) {
  const std::string filler(505, 'x');
  const struct {
    std::string file;
    Values want;
  } cases[] = {
      {"domain=D\nname=N\nserver_port=1\nserver_list=S\n", kAll},
      {"name=  a  \n", {{"name", "a  "}}},  // blanks behind belong to it
      {" \t name \v=\f x y\t\r\n", {{"name", "x y\t"}}},
      {"name=a\r\r\n", {{"name", "a"}}},
      {"name= \rb\n", {{"name", "\rb"}}},  // a line end stops the skipping
      {"name=\ndomain= \r\n", {{"name", ""}, {"domain", ""}}},
      {"name=a\nname=b\n", {{"name", "b"}}},
      {"NAME=x\n=x\nname x\n #name=x\n#\nnames=x\nna me=x\n\n", {}},
      {"name=a\0b\n"s, {{"name", "a"}}},  // a NUL ends a value, but no line
      {"name=a\r\0b\n"s, {{"name", "a"}}},
      {"\0name=a\nname\0=b\ndomain=d"s, {{"domain", "d"}}},
      // A line of 511 bytes, and what is behind that is a line of its own.
      {"name=" + filler + "\ndomain=d", {{"domain", "d"}, {"name", filler}}},
      {"name=" + filler + "xdomain=d",
       {{"domain", "d"}, {"name", filler + "x"}}},
  };
  TempFolder folder;
  for (const auto& row : cases) {
    set_values({});
    EXPECT_EQ(process(folder.write("f", row.file), ConfigMode::kRead), "");
    EXPECT_EQ(get_values(), row.want) << row.file;
  }
}

TEST(SettingsTest, AreReadWithoutATrace) {
  TempFolder folder;
  const std::string path = folder.write("f", "name=n\nserver_list=a, b,,c\n");
  folder.write("f.tmp", "t");
  AgentSettings settings;
  EXPECT_EQ(text_of(read_settings(path.c_str(), settings)), "");
  EXPECT_STREQ(settings.name.get(), "n");
  EXPECT_EQ(settings.domain, nullptr);
  EXPECT_EQ(folder.read("f.tmp"), "t");
  const Text servers = split_server_list(settings.server_list.get());
  EXPECT_EQ(std::string(servers.get(), 9), "a\0 b\0\0c\0\0"s);
  EXPECT_STREQ(split_server_list(nullptr).get(), "");
  EXPECT_EQ(parse_server_port(nullptr, 7), 7);
  EXPECT_EQ(parse_server_port("70000x", 7), 4464);
  std::filesystem::remove(path);
  const ErrorText missing = read_settings(path.c_str(), settings);
  EXPECT_EQ(text_of(missing), "Could not open configuration file " + path +
                                  ": No such file or directory");
  EXPECT_EQ(missing.error_number(), ENOENT);
}

TEST(ConfigReadTest, OnlyASuccessfulReadClearsTheSideFiles) {
  TempFolder folder;
  const std::string path = folder.path("%s");
  std::filesystem::create_directory(path);
  folder.write("%s.tmp", "t");
  folder.write("%s.bak", "b");
  for (ConfigMode mode : {ConfigMode::kRead, ConfigMode::kWrite}) {
    EXPECT_EQ(process(path, mode),
              "Could not open configuration file " + path + ": Is a directory");
    EXPECT_EQ(folder.read("%s.tmp"), "t");
    EXPECT_EQ(folder.read("%s.bak"), "b");
  }
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(process(path, ConfigMode::kWrite),
            "Could not open configuration file " + path +
                ": Operation not supported");
  EXPECT_EQ(folder.read("%s.tmp"), "t");
  std::filesystem::remove(path);
  folder.write("%s", "name=n");
  EXPECT_EQ(process(path, ConfigMode::kRead), "");
  EXPECT_EQ(folder.read("%s.tmp"), std::nullopt);
  EXPECT_EQ(folder.read("%s.bak"), std::nullopt);
  // Without a byte of its own on the disk.
  for (off_t size : {64 << 20, (64 << 20) + 1}) {
    ASSERT_EQ(truncate(path.c_str(), size), 0);
    EXPECT_EQ(process(path, ConfigMode::kRead).empty(), size == 64 << 20);
  }
  // Only a missing file is a question.
  EXPECT_EQ(process(path + "/", ConfigMode::kRead),
            "Could not open configuration file " + path + "/: Not a directory");
}

TEST(ConfigRewriteTest, ReplacesValuesAndKeepsEveryOtherByte) {
  const std::string long_line(511, '#');
  const Values name = {{"name", "N"}};
  const struct {
    std::optional<std::string> file;
    Values values;
    std::string want;
    Values left;
  } cases[] = {
      {{}, kAll, "domain=D\nname=N\nserver_port=1\nserver_list=S\n", kAll},
      {"name=\nserver_list=a\nname x",
       kAll,
       "name=N\nserver_list=S\nname xdomain=D\nserver_port=1\n",
       {{"domain", "D"}, {"server_port", "1"}}},
      {"\0\xff#\nname=a\0b\r\n"s, name, "\0\xff#\nname=N\0b\r\n"s, {}},
      {long_line + "name=x\n", name, long_line + "name=N\n", {}},
      {long_line + long_line, {}, long_line + long_line, {}},
  };
  for (const auto& row : cases) {
    TempFolder folder;
    if (row.file) folder.write("f", *row.file);
    folder.write("f.bak", "stale");
    folder.write("f.tmp", "stale");
    EXPECT_EQ(rewrite(folder.path("f"), row.values), "");
    EXPECT_EQ(folder.read("f"), row.want);
    EXPECT_EQ(folder.read("f.bak"), row.file);
    EXPECT_EQ(folder.read("f.tmp"), std::nullopt);
    EXPECT_EQ(get_values(), row.left) << row.want;
  }
}

TEST(ConfigRewriteTest, AKeyWithoutValueLeavesTheFile) {
  for (const std::string file :
       {"name=a\ndomain=d\n", "domain=d\ndomain=d\n"}) {
    TempFolder folder;
    EXPECT_EQ(rewrite(folder.write("f", file), {{"name", "N"}}),
              "No value supplied for key domain");
    EXPECT_EQ(folder.read("f"), file);
  }
}

TEST(ConfigRewriteTest, ADiskFullAtTheLastByteLeavesTheFile) {
  TempFolder folder;
  const std::string path = folder.write("f", "name=a\n#34\n");
  signal(SIGXFSZ, SIG_IGN);
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full = {std::strlen("name=N\n#34\n") - 1, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const std::string error = rewrite(path, {{"name", "N"}});
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(error, "Error writing to " + path + ".tmp: File too large");
  EXPECT_EQ(folder.read("f"), "name=a\n#34\n");
  EXPECT_EQ(folder.read("f.bak"), std::nullopt);
}

TEST(ConfigRewriteTest, KeepsThePermissionBits) {
  TempFolder folder;
  const std::string path = folder.path("f");
  const auto mode = [&path] {
    return static_cast<mode_t>(std::filesystem::status(path).permissions());
  };
  const mode_t before = umask(027);
  EXPECT_EQ(rewrite(path, kAll), "");
  EXPECT_EQ(mode(), 0640u);
  for (mode_t bits : {0600u, 0466u, 06750u}) {
    ASSERT_EQ(chmod(path.c_str(), bits), 0);
    EXPECT_EQ(rewrite(path, kAll), "");
    EXPECT_EQ(mode(), bits & 0777);
  }
  umask(before);
}

// Lists of acl(5), as the system keeps them: a version, and for each entry a
// kind, rights and an identifier, all little-endian.
TEST(ConfigRewriteTest, KeepsTheAccessListAndNoOther) {
  const auto entry = [](char kind, char rights, const char* id = "\xff\xff") {
    return std::string{kind, 0, rights, 0, id[0], id[1], id[0], id[1]};
  };
  const std::string list = "\2\0\0\0"s + entry(1, 6) + entry(2, 4, "\1\2") +
                           entry(4, 0) + entry(16, 4) + entry(32, 0);
  TempFolder folder;
  const std::string path = folder.write("f", "name=a\n");
  const auto set = [&list](const std::string& name, const char* kind) {
    return setxattr(name.c_str(), kind, list.data(), list.size(), 0);
  };
  if (set(folder.path(""), "system.posix_acl_default") != 0) {
    GTEST_SKIP() << "no access lists here: " << std::strerror(errno);
  }
  const auto list_of_file = [&path] {
    char bytes[100];
    const ssize_t size =
        getxattr(path.c_str(), "system.posix_acl_access", bytes, sizeof bytes);
    return std::string(bytes, size < 0 ? 0 : static_cast<std::size_t>(size));
  };
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_EQ(rewrite(path, kAll), "");
  EXPECT_EQ(list_of_file(), "");
  ASSERT_EQ(set(path, "system.posix_acl_access"), 0);
  EXPECT_EQ(rewrite(path, kAll), "");
  EXPECT_EQ(list_of_file(), list);
}

TEST(ConfigRewriteTest, WhatIsInTheWayIsNeitherFollowedNorReplaced) {
  TempFolder folder;
  const std::string path = folder.write("f", "name=a\n");
  folder.write("victim", "v");
  std::filesystem::create_symlink("victim", path + ".tmp");
  EXPECT_EQ(rewrite(path, {{"name", "N"}}), "");
  EXPECT_EQ(folder.read("victim"), "v");
  EXPECT_FALSE(std::filesystem::is_symlink(path));

  std::filesystem::remove(path + ".bak");
  std::filesystem::create_directory(path + ".bak");
  EXPECT_EQ(
      rewrite(path, {{"name", "M"}}),
      "Could not rename " + path + " to " + path + ".bak: Is a directory");
  std::filesystem::remove(path + ".tmp");
  std::filesystem::create_directory(path + ".tmp");
  EXPECT_EQ(rewrite(path, {{"name", "M"}}),
            "Error opening " + path + ".tmp: File exists");
  EXPECT_EQ(folder.read("f"), "name=N\n");
}

// Paths around the length from which the cut names are no names of their own.
TEST(ConfigRewriteTest, LongPaths) {
  TempFolder folder;
  const std::string parent(100, 'p');
  for (std::size_t length : {252u, 253u, 254u, 255u, 256u}) {
    const bool fits = length < 254;
    std::filesystem::create_directory(folder.path(parent));
    const std::string name =
        parent + "/" +
        std::string(length - folder.path(parent + "/").size(), 'f');
    const std::string path = folder.write(name, "name=a\n");
    const std::string temp = (path + ".tmp").substr(0, 255);
    const std::string backup = (path + ".bak").substr(0, 255);
    EXPECT_EQ(rewrite(path, {{"name", "N"}}),
              fits ? "" : ("Error opening " + temp).substr(0, 255));
    EXPECT_EQ(folder.read(name), fits ? "name=N\n" : "name=a\n");
    EXPECT_EQ(backup != path && std::filesystem::exists(backup), fits);
    // A read removes no file but those of its own.
    std::ofstream(temp) << "name=a\n";
    EXPECT_EQ(process(path, ConfigMode::kRead), "");
    EXPECT_EQ(std::filesystem::exists(temp), !fits) << length;
    EXPECT_EQ(get_values()["name"], fits ? "N" : "a");
    std::filesystem::remove_all(folder.path(parent));
  }
}

}  // namespace
}  // namespace velprobe
