// velprobe beside others in the same folder: it is stopped before each of its
// calls in turn, something else is done there, and it goes on.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

namespace fs = std::filesystem;

// Whatever a rewrite does with files.
const char* const kKinds[] = {"open",    "openat",    "flock",        "fstat",
                              "fstatat", "fgetxattr", "fremovexattr", "fchown",
                              "fchmod",  "read",      "write",        "fsync",
                              "close",   "renameat",  "unlinkat"};

// Velprobe is a run on the file c of a folder, in trouble as a fault says.
struct Velprobe : Program {
  Velprobe(const std::string& folder, const char* operation,
           const std::string& fault)
      : Program(
            {"/usr/bin/env", std::string("LD_PRELOAD=") + VELPROBE_FAULT_SHIM,
             "VELPROBE_FAULT=" + fault,
             "VELPROBE_FAULT_REPORT=" + folder + "/report", VELPROBE_PROGRAM,
             folder + "/c", operation},
            {.input = "n\ny\n", .prepare = [] { alarm(10); }}) {}
};

class RaceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (*VELPROBE_FAULT_SHIM == '\0') {
      GTEST_SKIP() << "no faults under a sanitizer";
    }
    start_server();
  }

  void start_server() {
    server_.emplace();
    lines_ = "# mine\r\nname=a\n" + server_->port_line() +
             "server_list=127.0.0.1\nother=1\n";
  }

  // Runs `configure` again and again, stopped before another call each time.
  void stop_at_each_call(const std::function<std::string()>& prepare,
                         const std::function<void(Program&)>& act,
                         const std::function<void()>& check) {
    for (const char* kind : kKinds) {
      start_server();  // the old one's lines gather in a pipe that nobody reads
      for (int nth = 1;; ++nth) {
        const std::string fault =
            std::string(kind) + ' ' + std::to_string(nth) + " -1 0";
        SCOPED_TRACE(fault);
        Velprobe program(prepare(), "configure", fault);
        if (!program.is_stopped()) break;
        act(program);
        program.kill(SIGCONT);
        program.wait();
        check();
        if (HasFailure()) return;
      }
    }
  }

  TempFolder folder_;
  std::optional<Server> server_;
  std::string lines_;
};

// Whoever owns the folder gives root another file to look at.
TEST_F(RaceTest, NoSwappedFileLendsItsRights) {
  const std::string c = folder_.path("c");
  const auto link_to = [&c](const char* target) {
    fs::remove(c);
    fs::create_symlink(target, c);
  };
  for (const auto& [first, then] :
       {std::pair("open", "set-id"), std::pair("secret", "open")}) {
    const auto prepare = [&, first = first] {
      for (const auto& [name, mode] :
           {std::pair("open", 0666u), std::pair("set-id", 06755u),
            std::pair("secret", 0600u)}) {
        chmod(folder_.write(name, lines_ + "#" + name).c_str(), mode);
      }
      link_to(first);
      return folder_.path("");
    };
    const auto check = [&] {
      for (const char* name : {"c", "c.tmp", "c.bak"}) {
        const std::string path = folder_.path(name);
        struct stat status;
        if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
          continue;
        }
        EXPECT_EQ(status.st_mode & 07000, 0u) << name;
        if (folder_.read(name)->find("#secret") != std::string::npos) {
          EXPECT_EQ(status.st_mode & 077, 0u) << name;
        }
        fs::remove(path);
      }
    };
    stop_at_each_call(
        prepare, [&, then = then](Program&) { link_to(then); }, check);
  }
}

TEST_F(RaceTest, ASwappedFolderIsNotTouched) {
  const std::string sub = folder_.path("sub");
  const char* const names[] = {"sub/c", "sub/c.tmp", "sub/c.bak"};
  const auto prepare = [&] {
    fs::remove_all(sub);
    fs::remove_all(folder_.path("gone"));
    fs::create_directory(sub);
    folder_.write("sub/c", lines_);
    return sub;
  };
  const auto swap = [&](Program&) {
    fs::rename(sub, folder_.path("gone"));
    fs::create_directory(sub);
    for (const char* name : names) folder_.write(name, lines_ + name);
  };
  const auto check = [&] {
    if (folder_.read("gone/c") == lines_) return;  // it all went on in sub
    for (const char* name : names) EXPECT_EQ(folder_.read(name), lines_ + name);
  };
  stop_at_each_call(prepare, swap, check);
}

TEST_F(RaceTest, WhoDiesLeavesTheOldFileOrTheNewOne) {
  const char* const names[] = {"c", "c.tmp", "c.bak"};
  const auto prepare = [&] {
    for (const char* name : names) fs::remove(folder_.path(name));
    folder_.write("c", lines_);
    return folder_.path("");
  };
  const auto is_whole = [&](const char* name) {
    const auto left = folder_.read(name);
    return left == lines_ || left == lines_ + "domain=.\n";
  };
  stop_at_each_call(
      prepare, [](Program& program) { program.kill(SIGKILL); },
      [&] { EXPECT_TRUE(std::any_of(names, names + 3, is_whole)); });
}

// Two rewrites, or a rewrite and a `test`, at any point of each other.
TEST_F(RaceTest, NothingIsLostBesideAnotherRun) {
  for (const bool is_rewrite : {true, false}) {
    std::optional<Velprobe> other;
    const auto prepare = [&] {
      for (const char* name : {"c.tmp", "c.bak"}) {
        fs::remove(folder_.path(name));
      }
      folder_.write("c", lines_);
      // Once it has read the file, the other one waits to rewrite it.
      if (is_rewrite) {
        other.emplace(folder_.path(""), "configure", "open 2 -1 0");
        EXPECT_TRUE(other->is_stopped());
      }
      return folder_.path("");
    };
    const auto act = [&](Program&) {
      if (is_rewrite) {
        other->kill(SIGCONT);
      } else {
        // No server: it has but one session at a time.
        other.emplace(folder_.path(""), "test", "connect 1 111 0");
      }
      other->wait();
    };
    const auto check = [&] {
      const std::string left = folder_.read("c").value_or("");
      EXPECT_TRUE(left.starts_with(lines_)) << left << other->output();
    };
    stop_at_each_call(prepare, act, check);
  }
}

TEST_F(RaceTest, BitsOfALostGroupOrListLetNobodyIn) {
  const struct {
    const char* fault;
    mode_t before, after;
  } rows[] = {{"none", 0664, 0664},
              {"fchown 1 1 1", 0664, 0604},
              {"fgetxattr 1 5 1", 0664, 0600},  // a list, for all it knows
              {"fchmod 1 1 1", 0600, 0600}};    // right as they are
  for (const auto& [fault, before, after] : rows) {
    const std::string path = folder_.write("c", lines_);
    ASSERT_EQ(chmod(path.c_str(), before), 0);
    EXPECT_EQ(Velprobe(folder_.path(""), "configure", fault).wait(), 0);
    EXPECT_EQ(static_cast<mode_t>(fs::status(path).permissions()), after);
  }
}

TEST_F(RaceTest, OnlyAFileBetweenTwoNamesIsWaitedFor) {
  const std::string folder = folder_.path("");
  const char* const pause = "nanosleep 1 -1 0";
  folder_.write("c", lines_);
  Velprobe program(folder, "configure", "renameat 2 -1 0");
  ASSERT_TRUE(program.is_stopped());
  Velprobe waiting(folder, "test", pause);
  EXPECT_TRUE(waiting.is_stopped());
  program.kill(SIGCONT);
  program.wait();
  waiting.kill(SIGCONT);
  EXPECT_TRUE(waiting.output().ends_with("All OK.\n\n")) << waiting.output();

  fs::remove(folder_.path("c"));
  folder_.write("c.tmp", "of a run that died");
  EXPECT_FALSE(Velprobe(folder, "test", pause).is_stopped());
}

// Somebody else locks the file and never lets go of it.
TEST_F(RaceTest, WithoutTheLockSideFilesAreLeftAlone) {
  const std::string kNfs = "fstatfs 0 -2 1";
  for (const std::string& fault : {std::string("none"), kNfs}) {
    const std::string path = folder_.write("c", lines_);
    const FileDescriptor other(open(path.c_str(), O_RDONLY));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    folder_.write("c.tmp", "t");
    folder_.write("c.bak", "b");
    const auto outcome = [&] {
      return Velprobe(folder_.path(""), "configure", fault).output();
    };
    EXPECT_TRUE(outcome().ends_with(".tmp: File exists\n"));
    EXPECT_EQ(folder_.read("c.tmp"), "t");
    EXPECT_EQ(folder_.read("c.bak"), "b");
    fs::remove(folder_.path("c.tmp"));
    EXPECT_TRUE(outcome().ends_with("updated.\n"));
  }
  folder_.write("c.tmp", "t");
  // A `test` asks for no lock where the folder or the file is there, and so may
  // delete nothing.
  for (const char* fault : {"fstatfs 1 -2 0", "fstatfs 2 -2 0"}) {
    EXPECT_EQ(Velprobe(folder_.path(""), "test", fault).wait(), 0);
    EXPECT_EQ(folder_.read("report")->find("flock"), std::string::npos);
    EXPECT_EQ(folder_.read("c.tmp"), "t");
  }
  EXPECT_TRUE(Velprobe(folder_.path(""), "configure", kNfs)
                  .output()
                  .ends_with("updated.\n"));
}

}  // namespace
}  // namespace velprobe
