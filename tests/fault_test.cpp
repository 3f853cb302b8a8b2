// velprobe while the system fails it: every call on the road of `test` and
// `configure` fails once in turn, or is where the process dies; and the system
// is scarce of something from the start.
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "program.h"
#include "temp_folder.h"
#include "util/owners.h"

namespace velprobe {
namespace {

// What the faults are put into.
struct Scenario {
  const char* name;
  const char* operation;
  std::string lines;  // "server_port=N" goes in front
  const char* input;
};

const Scenario kScenarios[] = {
    {"test", "test", "name=a\nserver_list=127.0.0.1\n", ""},
    {"configure", "configure", "# mine\r\n server_list = 127.0.0.1\nother=1\n",
     "n\ny\n"},
    {"scan", "configure", "", "y\n"},
};

struct Fault {
  std::string kind;
  long nth;
  int error;  // 0: the process dies there
  bool forever;
};

struct Result {
  std::string output;
  int status;
  std::map<std::string, long> report;
  std::string file, backup, temp;

  bool holds(const std::string& bytes) const {
    return file == bytes || backup == bytes || temp == bytes;
  }
};

class FaultTest : public testing::Test {
 protected:
  // A network of its own with nothing but the loopback: no query of a scan gets
  // out of it.
  void SetUp() override {
    if (access(VELPROBE_FAULT_SHIM, R_OK) != 0)
      GTEST_SKIP() << "no faults under a sanitizer";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
      GTEST_SKIP() << "no faults without a network namespace";
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
    ifreq loopback{.ifr_ifrn = {"lo"}, .ifr_ifru = {}};
    loopback.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(socket.get(), SIOCSIFFLAGS, &loopback), 0);

    server_ = std::make_unique<Program>(
        std::vector<std::string>{VELSTANDIN_PROGRAM, "--port", "0"});
    const std::string line = server_->read_until("\n");
    port_ = "server_port=" + line.substr(line.rfind(':') + 1);
    ASSERT_GT(port_.size(), 13U) << line;
  }

  Result attempt(const Scenario& scenario, const Fault& fault) {
    for (const char* name : {"c.bak", "c.tmp", "report"})
      unlink(folder_.path(name).c_str());
    const std::string path = folder_.write("c", before(scenario));
    const std::string order =
        fault.kind + " " + std::to_string(fault.nth) + " " +
        std::to_string(fault.error) + (fault.forever ? " 1" : " 0");
    const std::string report = folder_.path("report");
    const auto prepare = [&] {
      setenv("VELPROBE_FAULT", order.c_str(), 1);
      setenv("VELPROBE_FAULT_REPORT", report.c_str(), 1);
      setenv("LD_PRELOAD", VELPROBE_FAULT_SHIM, 1);
      alarm(20);
    };
    Finished finished = run({VELPROBE_PROGRAM, path, scenario.operation},
                            {.input = scenario.input, .prepare = prepare});
    Result result{std::move(finished.output), finished.status, {}, {}, {}, {}};
    for (std::size_t at; (at = result.output.find(path)) != std::string::npos;)
      result.output.replace(at, path.size(), "@");
    result.file = folder_.read("c").value_or("");
    result.backup = folder_.read("c.bak").value_or("");
    result.temp = folder_.read("c.tmp").value_or("");
    std::istringstream counts(folder_.read("report").value_or(""));
    for (std::string kind; counts >> kind;) counts >> result.report[kind];
    return result;
  }

  std::string before(const Scenario& scenario) const {
    return port_ + scenario.lines;
  }

  TempFolder folder_;
  std::unique_ptr<Program> server_;
  std::string port_;
};

// Every text that the failure of a kind of call may end in; without any of
// them the run must look as if nothing had happened.
struct Row {
  const char* kind;
  int error;
  std::vector<std::string> texts;
};

const Row kRows[] = {
    {"sigaction", EINVAL, {"Error starting socket subsystem: sigaction on SIGPIPE failed: Invalid argument\n"}},
    {"setvbuf", ENOMEM, {""}},
    {"fcntl", EBADF, {}},
    {"open", EMFILE, {}},
    {"read", EIO, {}},
    {"read", EINTR, {}},
    {"write", EIO, {}},
    {"write", EPIPE, {}},
    {"write", EINTR, {}},
    {"write", ENOSPC, {}},
    {"stat", EACCES, {}},
    {"fchown", EPERM, {}},
    {"fchmod", EPERM, {}},
    {"fsync", EIO, {}},
    {"close", EIO, {}},
    {"rename", EXDEV, {}},
    {"unlink", EACCES, {}},
    {"fgets", EIO, {}},
    {"socket", EMFILE, {}},
    {"setsockopt", ENOPROTOOPT, {}},
    {"getsockopt", ENOBUFS, {}},
    {"getsockname", ENOBUFS, {}},
    {"connect", ENETUNREACH, {}},
    {"select", EINTR, {}},
    {"select", ENOMEM, {}},
    {"shutdown", ENOTCONN, {}},
    {"ioctl", ENODEV, {}},
    {"sendto", ENETUNREACH, {}},
    {"recvfrom", ECONNREFUSED, {}},
    {"memory", ENOMEM, {}},
};

TEST_F(FaultTest, EveryCallFailsOnce) {
  int faults = 0;
  std::map<std::string, std::set<std::string>> seen;
  for (const Scenario& scenario : kScenarios) {
    const Result good = attempt(scenario, {"none", 0, 0, false});
    EXPECT_EQ(good.status, 0) << good.output;
    for (const Row& row : kRows) {
      const auto calls = good.report.find(row.kind);
      if (calls == good.report.end()) continue;
      for (long nth = 1; nth <= calls->second; ++nth) {
        for (bool forever : {false, true}) {
          const Result bad =
              attempt(scenario, {row.kind, nth, row.error, forever});
          ++faults;
          std::printf("%s %s %ld %d %d: status %d left %ld same %d %s\n", scenario.name, row.kind, nth, row.error, forever, bad.status, bad.report.count("left-open") ? bad.report.at("left-open") : -1, bad.output == good.output,
             bad.output == good.output ? "" : bad.output.substr(bad.output.size() > 150 ? bad.output.size() - 150 : 0).c_str());
        }
      }
    }
  }
  std::printf("%d faults\n", faults);
}

}  // namespace
}  // namespace velprobe
