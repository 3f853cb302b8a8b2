// velprobe while the system fails it: every call on the road of `test` and
// `configure` fails once in turn; and the system is scarce of something from
// the start.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

struct Scenario {
  const char* operation;
  std::string lines;  // "server_port=N" goes in front
  const char* input;
};

const Scenario kTest = {"test", "name=a\nserver_list=127.0.0.1\n", ""};
const Scenario kConfigure = {
    "configure", "# mine\r\n server_list = 127.0.0.1\nother=1\n", "n\ny\n"};
const Scenario kScan = {"configure", "", "y\n"};

struct Fault {
  std::string kind = "none";
  long nth = 0;
  int error = 0;
  bool forever = false;
};

struct Result {
  std::string output;
  int status;
  std::map<std::string, long> calls;  // of each kind
};

class FaultTest : public testing::Test {
 protected:
  void SetUp() override {
    if (*VELPROBE_FAULT_SHIM == '\0') {
      GTEST_SKIP() << "no faults under a sanitizer";
    }
  }

  // Its lines gather in a pipe that nobody reads: start one a scenario.
  void start_server() {
    server_.emplace();
    port_ = server_->port_line();
  }

  Result attempt(const Scenario& scenario, const Fault& fault) {
    std::ostringstream burden;
    burden << "VELPROBE_FAULT='" << fault.kind << ' ' << fault.nth << ' '
           << fault.error << ' ' << fault.forever << "' VELPROBE_FAULT_REPORT='"
           << folder_.path("report") << "' LD_PRELOAD='" << VELPROBE_FAULT_SHIM
           << "'";
    auto [output, status] = run_under(burden.str(), scenario);
    const std::string path = folder_.path("c");
    for (std::size_t at; (at = output.find(path)) != output.npos;) {
      output.erase(at, path.size()).insert(at, 1, '@');
    }
    Result result{output.insert(0, 1, '\n'), status, {}};
    std::istringstream counts(bytes("report"));
    for (std::string kind; counts >> kind;) counts >> result.calls[kind];
    return result;
  }

  // Runs a scenario on the file c under something said in shell words. The
  // input is a file: a program that ends early leaves nobody at a pipe's end.
  Finished run_under(const std::string& burden, const Scenario& scenario) {
    for (const char* name : {"c", "c.bak", "c.tmp", "report"}) {
      unlink(folder_.path(name).c_str());
    }
    // What the test's own caller left open would count.
    const auto prepare = [] { alarm(5), close_range(3, ~0U, 0); };
    const std::string script = " exec \"$0\" \"$1\" \"$2\"";
    return run({"/bin/sh", "-c", "exec <\"$3\"; " + burden + script,
                VELPROBE_PROGRAM, folder_.write("c", content(scenario)),
                scenario.operation, folder_.write("in", scenario.input)},
               {.prepare = prepare});
  }

  std::string bytes(const char* name) const {
    return folder_.read(name).value_or("");
  }
  std::string content(const Scenario& of) const { return port_ + of.lines; }

  TempFolder folder_;
  std::optional<Server> server_;
  std::string port_;
};

// What a failing kind of call may lead to: an exit status and a text, "%"
// standing for the error's own. A failing run ends with it, any other holds it.
// Each row must occur, and each run fit one.
struct End {
  std::string kind;
  int error;
  int status;
  const char* text;
};

const End kEnds[] = {
    {"sigaction", EINVAL, 1, "subsystem: sigaction on SIGPIPE failed: %"},
    {"setvbuf", ENOMEM, 1, "\nError buffering standard output: %"},
    {"fcntl", EPERM, 0, "\nError setting socket to nonblocking: %"},
    {"fcntl", EPERM, 1, "\nError: Error writing to @.tmp: %"},
    {"open", EMFILE, 1, "\nCould not open configuration file @: %"},
    {"open", EMFILE, 1, "\nError: Error opening @.tmp: %"},
    {"openat", EMFILE, 1, "\nCould not open configuration file @: %"},
    {"openat", EMFILE, 1, "\nError: Error opening @.tmp: %"},
    {"read", EIO, 1, "\nCould not open configuration file @: %"},
    {"read", EIO, 1, "\nError: Could not open configuration file @: %"},
    {"read", EIO, 0, "receiving data: Unknown error in socket_recv(): %"},
    {"write", ENOSPC, 0, "socket_write_buf: Unknown error in socket_send(): %"},
    {"write", ENOSPC, 1, "\nError: Error writing to @.tmp: %"},
    {"fstat", EACCES, 1, "\nError: Error opening @.tmp: %"},
    {"fstatat", EACCES, 1, "\nError: Error opening @.tmp: %"},
    {"fchmod", EPERM, 1, "\nError: Error writing to @.tmp: %"},
    {"fsync", EIO, 1, "\nError: Error writing to @.tmp: %"},
    {"close", EIO, 1, "\nError: Error writing to @.tmp: %"},
    {"renameat", EXDEV, 1, "\nError: Could not rename @ to @.bak: %"},
    {"renameat", EXDEV, 1, "\nError: Could not rename @.tmp to @: %"},
    {"renameat", EXDEV, 1, "\nError: Catastrophic error renaming @: %"},
    {"fgets", EIO, 1, " anyway? (y/N) fgets returned error"},
    {"fgets", EIO, 1, " information? (y/N) fgets returned error"},
    {"socket", EMFILE, 0, "\nError creating socket: %"},
    {"socket", EMFILE, 1, "\nUDP send failed (Network is unreachable)\n"},
    {"socket", EMFILE, 1, "\nCould not create socket\n"},
    {"setsockopt", ENOPROTOOPT, 0, "\nError setting TCP_CORK: %"},
    {"setsockopt", ENOPROTOOPT, 0,
     "flush returned error: Error setting TCP_CORK: %"},
    {"setsockopt", ENOPROTOOPT, 1, "\nUDP set allow broadcast failed\n"},
    {"getsockopt", ENOBUFS, 0, "\nError retrieving connection status: %"},
    // The agent has no address to go by then.
    {"getsockname", ENOBUFS, 0, "\nWill use IP address as agent name \"\""},
    {"connect", ENETUNREACH, 0, "\nError connecting: %"},
    {"ppoll", EINTR, 0, "\nError waiting for connect: %"},
    {"ioctl", ENODEV, 1, "\nUDP send failed (Network is unreachable)\n"},
    {"sendto", EPERM, 1, "\nUDP send failed (%)\n"},
    {"memory", ENOMEM, 1, "\nCould not open configuration file @: %"},
    {"memory", ENOMEM, 1, "\nError: Could not open configuration file @: %"},
    {"memory", ENOMEM, 1, "Out of memory"},
    {"memory", ENOMEM, 1, "\nOut of memory\n"},
    {"memory", ENOMEM, 1, "\nError: Out of memory\n"},
    {"memory", ENOMEM, 0, "\nOut of memory"},
    {"memory", ENOMEM, 0, "\nError allocating memory"},
    {"memory", ENOMEM, 1, "\nUDP send failed (Network is unreachable)\n"},
    {"memory", ENOMEM, 1, "\nNo memory for small nic structure\n"},
};

// Kinds and errors that may go by unnoticed.
const std::set<std::pair<std::string, int>> kUnnoticed = {
    {"fflush", EIO},         {"fcntl", EPERM},
    {"openat", EMFILE},      {"read", EINTR},
    {"write", EINTR},        {"fstat", EACCES},
    {"fstatat", EACCES},     {"fstatfs", EIO},
    {"fchown", EPERM},       {"fgetxattr", EIO},
    {"fremovexattr", EPERM}, {"fsync", EIO},
    {"close", EIO},          {"unlinkat", EACCES},
    {"flock", ENOLCK},       {"setsockopt", ENOPROTOOPT},
    {"ppoll", EINTR},        {"shutdown", ENOTCONN},
    {"ioctl", ENODEV},       {"recvfrom", ECONNREFUSED},
    {"memory", ENOMEM}};

bool fits(const End& end, const Result& bad) {
  if (bad.status != end.status) return false;
  std::string text = end.text;
  if (const std::size_t at = text.find('%'); at != text.npos) {
    text.replace(at, 1, strerror(end.error))
        .append(text.back() == '\n' ? "" : "\n");
  }
  return end.status == 0 ? bad.output.find(text) != text.npos
                         : bad.output.ends_with(text);
}

// find_ends adds the rows that a run fits to seen; false when it fits none.
bool find_ends(const Fault& fault, const Result& good, const Result& bad,
               std::set<const End*>& seen) {
  // How often a run reads or waits depends on how soon the server answers: the
  // last such call of one run may not come to pass in the next.
  const auto calls = bad.calls.find(fault.kind);
  const bool did_strike =
      calls == bad.calls.end() || calls->second >= fault.nth;
  bool found =
      (!did_strike || kUnnoticed.contains({fault.kind, fault.error})) &&
      bad.status == 0 && bad.output == good.output;
  for (const End& end : kEnds) {
    if (end.kind != fault.kind || end.error != fault.error) continue;
    if (!fits(end, bad)) continue;
    seen.insert(&end);
    found = true;
  }
  return found;
}

// faults_of lists what can fail in a scenario: every call of each kind once,
// some also from then on.
std::vector<Fault> faults_of(const Scenario& scenario, Result& good) {
  // A scan takes its time; what comes after it the others show.
  const std::string scanning =
      "socket setsockopt ioctl sendto recvfrom ppoll memory";
  std::set<std::pair<std::string, int>> kinds = kUnnoticed;
  for (const End& end : kEnds) kinds.insert({end.kind, end.error});
  std::vector<Fault> faults;
  for (const auto& [kind, error] : kinds) {
    if (scenario.lines.empty() && scanning.find(kind) == kind.npos) continue;
    for (long nth = 1; nth <= good.calls[kind]; ++nth) {
      faults.push_back({kind, nth, error});
      if (kind == "memory" || kind == "renameat") {
        faults.push_back({kind, nth, error, true});
      }
    }
  }
  return faults;
}

TEST_F(FaultTest, EveryCallFailsInTurn) {
  if (!enter_own_network()) {
    GTEST_SKIP() << "no network namespace: " << strerror(errno);
  }
  std::set<const End*> seen;
  for (const Scenario& scenario : {kTest, kConfigure, kScan}) {
    start_server();
    Result good = attempt(scenario, {});
    ASSERT_EQ(good.status, 0) << good.output;
    for (const Fault& fault : faults_of(scenario, good)) {
      SCOPED_TRACE(fault.kind + std::to_string(fault.nth));
      Result bad = attempt(scenario, fault);
      // A slow server may have been missed.
      for (int i = 0; i < 2 && !find_ends(fault, good, bad, seen); ++i) {
        bad = attempt(scenario, fault);
      }
      EXPECT_TRUE(find_ends(fault, good, bad, seen)) << bad.output;
      EXPECT_EQ(bad.calls["left-open"], 0);
      const bool updated = bad.output.ends_with("updated.\n");
      const bool at_path = !updated && !bytes("c").empty();
      EXPECT_EQ(bytes(at_path ? "c" : "c.bak"), content(scenario));
      EXPECT_TRUE(!updated || bytes("c").starts_with(content(scenario)))
          << bytes("c");
    }
  }
  for (const End& end : kEnds) {
    EXPECT_TRUE(seen.contains(&end)) << end.kind << end.text;
  }
}

TEST_F(FaultTest, GetsByWithLittle) {
  const struct {
    const char* burden;
    int status = 0;
    const char* output = "updated.\n";
  } rows[] = {
      {"ulimit -n 3;", 127, "object file: Error 24\n"},
      {"ulimit -n 4;", 1, "/c: Too many open files\n"},
      {"ulimit -n 5;", 1, "c.tmp: Too many open files\n"},
      {"ulimit -n 6;", 1, "c.tmp: Too many open files\n"},
      {"ulimit -n 7;"},
      {"ulimit -n 8;"},
      {"ulimit -s 64;"},
      {"exec >/dev/full;", 0, ""},
      {"exec >&- 2>&-;", 0, ""},
      {"exec <&- >&- 2>&-;", 1, ""},
      {"exec <&-; VELPROBE_FAULT='open 1 24 0' LD_PRELOAD='" VELPROBE_FAULT_SHIM
       "'",
       1, "null: Too many open files\n"}};
  start_server();
  attempt(kConfigure, {});
  const std::string after = bytes("c");
  for (const auto& row : rows) {
    const auto [output, status] = run_under(row.burden, kConfigure);
    EXPECT_TRUE(output.ends_with(row.output)) << row.burden << output;
    EXPECT_EQ(status, row.status) << row.burden;
    EXPECT_EQ(bytes("c"), status == 0 ? after : content(kConfigure));
  }
  const std::string piped =
      run({VELPROBE_PROGRAM, "/dev/stdin", "test"}, {.input = content(kTest)})
          .output;
  EXPECT_NE(piped.find("\nConnecting to server: OK.\n"), piped.npos) << piped;
  EXPECT_EQ(run({VELPROBE_PROGRAM, "/dev/zero", "test"}).output,
            "Could not open configuration file /dev/zero: File too large\n");
}

}  // namespace
}  // namespace velprobe
