// velcheck, the built program, against servers of every kind.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/bytes.h"
#include "support/program.h"
#include "support/scripted_peer.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

namespace fs = std::filesystem;
using std::string;
using Json = nlohmann::json;
using Words = std::vector<string>;

const string kOffer = bytes_of("61 80 02 02 02 02");
const string kKey = bytes_of("A1 80 01 01 01 01 01 01");
const string kEnd = bytes_of("00 00");
const string kAccept = kOffer + kKey + kEnd + kEnd;

Words command_of(Words options) {
  options.insert(options.begin(), VELCHECK_PROGRAM);
  return options;
}

Finished check(const Words& options, const Options& how = {}) {
  return run(command_of(options), how);
}

// The object that velcheck prints, nothing else beside it.
Json check_json(Words options, const Options& how = {}) {
  options.insert(options.begin(), "--json");
  return Json::parse(check(options, how).output);
}

template <typename Peer>
string name_of(const Peer& peer, const string& host = "127.0.0.1") {
  return host + ":" + std::to_string(peer.port());
}

string name_of(const Server& server, const string& host = "127.0.0.1") {
  return host + ":" + std::to_string(server.port);
}

string row_text(const Json& json, std::size_t row = 0) {
  return json["servers"][row]["text"];
}

string row_result(const Json& json, std::size_t row = 0) {
  return json["servers"][row]["result"];
}

// CrowdPeer gives each of many clients the same answer, at any address of
// loopback, and then says the filler over and over, or nothing more at all.
class CrowdPeer {
 public:
  CrowdPeer(string answer, string filler, bool stay)
      : answer_(std::move(answer)), filler_(std::move(filler)), stay_(stay) {
    EXPECT_FALSE(listen_on({0, 0, 0, 0}, 0, listener_));
    EXPECT_TRUE(socket_local_address(listener_.get(), nullptr, &port_));
    thread_ = std::thread([this] { serve(); });
  }
  ~CrowdPeer() {
    stop_ = true;
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  std::uint16_t port() const { return port_; }

 private:
  // One thread for all of them: what a client does not take now, it gets later.
  void serve() {
    std::vector<FileDescriptor> clients;
    while (!stop_) {
      while (socket_wait_readable(listener_.get(), 0) && !stop_) {
        FileDescriptor client;
        Ipv4Address address{};
        std::uint16_t port = 0;
        if (accept_connection(listener_, client, address, port)) break;
        send(client.get(), answer_.data(), answer_.size(), MSG_NOSIGNAL);
        if (stay_) clients.push_back(std::move(client));
      }
      for (const FileDescriptor& client : clients) {
        send(client.get(), filler_.data(), filler_.size(),
             MSG_NOSIGNAL | MSG_DONTWAIT);
      }
      usleep(50'000);
    }
  }

  string answer_, filler_;
  bool stay_;
  FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

// --- The verdict on one server ----------------------------------------------

TEST(Check, SaysOfAServerWhatVelprobeSays) {
  const string refusal = bytes_of("63 80 04 02 6E 6F 00 00");
  const struct {
    const char* name;
    string answer;
    string result;
    bool reset = false;
  } rows[] = {
      {"acceptance", kAccept, "accepted"},
      {"another minor version",
       bytes_of("61 80 02 02 02 FF") + kKey + kEnd + kEnd, "accepted"},
      {"another major version",
       bytes_of("61 80 02 02 03 02") + kKey + kEnd + kEnd, "incompatible"},
      {"another authentication", kOffer + bytes_of("A2 80") + kEnd + kEnd,
       "incompatible"},
      {"another protocol", "HTTP/1.0 400 Bad Request\r\n", "incompatible"},
      {"refusal", refusal, "refused"},
      {"broken refusal", refusal.substr(0, 5), "damaged"},
      {"a reason with control bytes", bytes_of("63 80 04 03 1B 7C 0A 00 00"),
       "refused"},
      {"a version that is no number", bytes_of("61 80 04 02 02 02"), "damaged"},
      {"nothing", "", "damaged"},
      {"a reset in the middle", kOffer, "damaged", true},
  };
  TempFolder folder;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedPeer peer({.answer = row.answer, .reset = row.reset});
    const string config = folder.write("agent.conf", peer.config());
    const string told = run({VELPROBE_PROGRAM, config, "test"}).output;
    const Json json = check_json({"-f", config});
    EXPECT_EQ(row_result(json), row.result);
    const string text = row_text(json);
    const string line =
        row.result == "accepted" ? "Connecting to server: OK." : text;
    EXPECT_NE(told.find(" ...\n" + line + "\n"), told.npos) << told << text;
    EXPECT_EQ(json["servers"][0]["advice"].empty(), false);
    EXPECT_EQ(json["servers"][0]["advice"] == "", row.result == "accepted");
  }
}

TEST(Check, TellsAboutNamesWhatVelprobeTells) {
  TempFolder folder;
  const string config = folder.write(
      "agent.conf", "server_list=name.invalid\nname=a\nserver_port=1\n");
  const string told = run({VELPROBE_PROGRAM, config, "test"}).output;
  const Json json = check_json({"-f", config});
  EXPECT_EQ(row_result(json), "unresolved");
  EXPECT_EQ(json["servers"][0]["address"], nullptr);
  EXPECT_NE(told.find(row_text(json)), told.npos) << told << row_text(json);
}

TEST(Check, AnnouncesTheAgentAndTellsTheOffer) {
  Server server({"--sessions", "2", "--offer-version", "0x0203"});
  const Json named =
      check_json({name_of(server), "-n", "web1", "-d", "d"})["servers"][0];
  EXPECT_EQ(named["agent"], "web1");
  EXPECT_EQ(named["offered_version"], 0x0203);
  EXPECT_EQ(named["source"], "argument");
  EXPECT_EQ(check_json({name_of(server)})["servers"][0]["agent"], "127.0.0.1");
  EXPECT_NE(server.output().find("name \"web1\", domain \"d\""), string::npos);
  EXPECT_NE(server.output().find("name \"127.0.0.1\", domain \"\""),
            string::npos);
}

// --- Whom to ask ------------------------------------------------------------

TEST(Check, TakesServersFromEverywhereEachOnce) {
  TempFolder folder;
  const string config =
      folder.write("agent.conf",
                   "server_list=127.0.0.2,127.0.0.3,127.0.0.2\nname=file\n"
                   "domain=d\nserver_port=1\n");
  folder.write("agent.conf.bak", "old");
  const string list = folder.write("list",
                                   "\xEF\xBB\xBF# comment\n\n 127.0.0.4 "
                                   "\r\n127.0.0.5:2 # mine\n127.0.0.3:1");
  const Json json = check_json(
      {"-f", config, "--servers-from", list, "127.0.0.6", "127.0.0.5:2"});
  string asked;
  for (const Json& row : json["servers"]) {
    asked += row["server"].get<string>() + ":" +
             std::to_string(row["port"].get<int>()) + " ";
  }
  EXPECT_EQ(asked,
            "127.0.0.2:1 127.0.0.3:1 127.0.0.4:1 127.0.0.5:2 127.0.0.6:1 ");
  EXPECT_EQ(json["name"], "file");
  EXPECT_EQ(folder.read("agent.conf.bak"), "old");
  const Json other = check_json({"-f", config, "-n", "", "-d", "e", "-p", "3"});
  EXPECT_EQ(other["name"], nullptr);
  EXPECT_EQ(other["domain"], "e");
  EXPECT_EQ(other["servers"][0]["port"], 3);
}

TEST(Check, ReadsServersFromAPipe) {
  const Finished result =
      check({"--servers-from", "-", "--jsonl"}, {.input = "127.0.0.1:1\n"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(Json::parse(result.output)["port"], 1);
  const Finished bad =
      check({"--servers-from", "-"}, {.input = "127.0.0.1\na:b:c\n"});
  EXPECT_EQ(bad.status, 3);
  EXPECT_EQ(bad.output,
            "VELCHECK UNKNOWN - standard input, line 2: not SERVER or "
            "SERVER:PORT: \"a:b:c\"\n");
}

TEST(Check, FindsServersByAScan) {
  if (!enter_own_network()) GTEST_SKIP() << "no network of one's own";
  Server server({"--sessions", "1"});
  const Json json =
      check_json({"-s", "-p", std::to_string(server.port), "-n", "a"});
  ASSERT_EQ(json["servers"].size(), 1U) << json;
  EXPECT_EQ(json["servers"][0]["source"], "scan");
  EXPECT_EQ(json["status"], "OK");
}

// own_file lays a file over one of the system's, for the program alone.
auto own_file(const string& path, const char* system_path) {
  return [=] {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
        mount(path.c_str(), system_path, nullptr, MS_BIND, nullptr) != 0) {
      _exit(99);
    }
  };
}

TEST(Check, TellsAddressesOfEveryKind) {
  TempFolder folder;
  const string hosts =
      folder.write("hosts", "127.0.0.2 two\n127.0.0.3 two\nfd00::1 six\n");
  const Options how{.prepare = own_file(hosts, "/etc/hosts")};
  if (check({"two:1"}, how).status == 99) {
    GTEST_SKIP() << "no mounts of one's own";
  }
  const Json first = check_json({"two:1", "six:1"}, how);
  EXPECT_EQ(first["servers"][0]["address"], "127.0.0.2");
  EXPECT_TRUE(row_text(first, 1).ends_with("; it has IPv6 addresses only"))
      << first;
  const Json all = check_json({"two:1", "--all-addresses"}, how);
  EXPECT_EQ(all["servers"].size(), 2U);
  EXPECT_EQ(all["servers"][1]["address"], "127.0.0.3");
}

// --- Bounded time -----------------------------------------------------------

TEST(Check, WaitsForNobodyLongerThanItsTime) {
  CrowdPeer silent("", "", true);
  CrowdPeer dripping(kOffer + kKey + bytes_of("04 84 FF FF FF FF"), "a", true);
  Server good;
  const Json json =
      check_json({name_of(silent), name_of(good), name_of(dripping),
                  name_of(silent, "127.0.0.2"), "--each", "1", "-j", "4"});
  EXPECT_EQ(json["status"], "WARNING");
  EXPECT_EQ(json["counts"]["accepted"], 1);
  EXPECT_EQ(json["counts"]["timeout"], 3) << json;
  const Json cut = check_json(
      {name_of(silent), name_of(silent, "127.0.0.2"), "-t", "0.3", "-j", "1"});
  EXPECT_EQ(row_text(cut, 1), "Not asked: out of time") << cut;
  EXPECT_EQ(row_result(cut, 1), "timeout");
}

TEST(Check, LeavesALookUpThatHangsBehind) {
  TempFolder folder;
  // A name server that never answers.
  const FileDescriptor server(socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(0x7F090909);
  address.sin_port = htons(53);
  if (bind(server.get(), reinterpret_cast<sockaddr*>(&address),
           sizeof address) != 0) {
    GTEST_SKIP() << "port 53 is not to be had";
  }
  const string conf = folder.write(
      "resolv.conf", "nameserver 127.9.9.9\noptions timeout:30 attempts:5\n");
  const Options how{.prepare = own_file(conf, "/etc/resolv.conf")};
  Server good;
  const Words words = {"one.example", "two.example:5", "two.example",
                       name_of(good)};
  Words by_each = words, by_run = words;
  by_each.insert(by_each.end(), {"--each", "0.2", "-j", "1"});
  by_run.insert(by_run.end(), {"-t", "1"});
  if (check({"127.0.0.1:1"}, how).status == 99) {
    GTEST_SKIP() << "no mounts of one's own";
  }
  for (const Words& options : {by_each, by_run}) {
    const Json json = check_json(options, how);
    EXPECT_EQ(json["counts"]["accepted"], 1);
    for (std::size_t row = 0; row < 3; ++row) {
      EXPECT_EQ(row_text(json, row), "Look-up timed out") << json;
    }
  }
}

TEST(Check, TellsWhatItKnowsWhenInterrupted) {
  for (const int signal : {SIGINT, SIGTERM}) {
    CrowdPeer silent("", "", true);
    Server good;
    Program program(command_of({name_of(silent), name_of(good), "--jsonl",
                                "--each", "60", "-t", "60"}));
    // The one line that can come has come, in spite of the other server.
    EXPECT_EQ(Json::parse(program.read_until("\n"))["result"], "accepted");
    // Two are one, as from timeout(1).
    program.kill(signal);
    program.kill(signal == SIGINT ? SIGTERM : SIGINT);
    const string& all = program.output();
    const Json last = Json::parse(all.substr(all.find('\n') + 1));
    EXPECT_EQ(last["text"], "Interrupted before an answer");
    EXPECT_EQ(last["result"], "timeout");
    EXPECT_EQ(program.wait(), 1);
  }
}

TEST(Check, ShowsProgressOnATerminalOnly) {
  CrowdPeer silent("", "", true);
  const string server = name_of(silent);
  Program program(command_of({server, "-t", "60"}), {.on_terminal = true});
  const string shown = program.read_until(" s left");
  EXPECT_NE(shown.find("velcheck: 1 of 1 asked, 0 answered, "), shown.npos);
  program.kill(SIGINT);
  EXPECT_NE(program.output().find("\r\033[KVELCHECK CRITICAL - "),
            string::npos);
  EXPECT_TRUE(
      check({server, "-t", "1.3"}).output.starts_with("VELCHECK CRITICAL"));
}

// --- Many, and hostile ------------------------------------------------------

TEST(Check, FindsTheGoodOnesInAHostileCrowd) {
  const string filler(100, '\x19');
  CrowdPeer crowd[] = {
      {"", "", true},                                       // silence
      {"", "", false},                                      // a slammed door
      {"", string(100, '\xDE'), true},                      // garbage
      {kOffer, filler, true},                               // endless offer
      {kOffer + kKey, string(100, '0'), true},              // endless lists
      {bytes_of("1F"), string(100, '\xFF'), true},          // endless tag
      {bytes_of("63 80 04 84 FF FF FF FF"), filler, true},  // gigabytes
      {kOffer + kKey + bytes_of("04 84 FF FF FF FF"), "a", true},  // a drip
  };
  Server good({"--listen", "0.0.0.0", "--no-discovery"});
  TempFolder folder;
  string list;
  for (int i = 1; i <= 100; ++i) {
    const string host = "127.0.1." + std::to_string(i);
    for (const CrowdPeer& peer : crowd) list += name_of(peer, host) + "\n";
    list += name_of(good, host) + "\n";
  }
  const Words words = {"--servers-from",
                       folder.write("list", list),
                       "--each",
                       "2",
                       "-t",
                       "50",
                       "-j",
                       "1000"};
  const Json json = check_json(words);
  EXPECT_EQ(json["counts"]["accepted"], 100) << json["counts"];
  EXPECT_EQ(json["counts"]["servers"], 900);
  for (const Json& row : json["servers"]) {
    const bool is_good = row["port"] == good.port;
    EXPECT_EQ(row["result"] == "accepted", is_good) << row;
    EXPECT_NE(row["text"], "Not asked: out of time");
  }
  if (*VELPROBE_FAULT_SHIM == '\0') return;  // sanitizers take their own share
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024);
}

TEST(Check, MakesDoWithFewDescriptors) {
  Server good({"--listen", "0.0.0.0", "--no-discovery"});
  TempFolder folder;
  string list = name_of(good, "localhost") + "\n";
  for (int i = 1; i < 200; ++i) {
    list += name_of(good, "127.0.2." + std::to_string(i)) + "\n";
  }
  const auto few = [] {
    const rlimit both = {32, 32};
    setrlimit(RLIMIT_NOFILE, &both);
  };
  const Json json =
      check_json({"--servers-from", folder.write("list", list), "-j", "4096"},
                 {.prepare = few});
  EXPECT_EQ(json["status"], "OK") << json;
  EXPECT_EQ(json["counts"]["accepted"], 200);
}

// --- The way out ------------------------------------------------------------

TEST(Check, EndsWithUnknownAfterBadUsage) {
  TempFolder folder;
  const string pipe = folder.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const Words rows[] = {
      {},
      {"--bogus"},
      {"-f"},
      {"-p", "0", "a"},
      {"-p", "65536", "a"},
      {"-t", "0", "a"},
      {"-t", "1s", "a"},
      {"--each", "inf", "a"},
      {"-j", "4097", "a"},
      {"--per-server", "-1", "a"},
      {"-w", "2:1", "a"},
      {"-n", string(257, 'n'), "a"},
      {"--json", "--prometheus", "a"},
      {"--output", "", "a"},
      {"--servers-from", "/dev/null", "--servers-from", "/dev/null", "a"},
      {"a:b"},
      {"::1"},
      {"-f", "/nonexistent/agent.conf"},
      {"-f", "/nonexistent/agent.conf", "--prometheus", "--output",
       "/dev/null"},
      {"-f", pipe, "-t", "0.1"},
      {"--servers-from", pipe, "-t", "0.1"},
      {"--servers-from", "/nonexistent"},
      {"--servers-from", "/"},
  };
  for (const Words& words : rows) {
    const Finished result = check(words);
    EXPECT_EQ(result.status, 3) << (words.empty() ? "" : words[0]);
    EXPECT_GT(result.output.size(), 10U);
  }
  const string told = check({"--help"}).output;
  EXPECT_TRUE(told.starts_with("Usage: velcheck [OPTION]..."));
  for (const Words& words : {Words{"-h"}, Words{"-V"}}) {
    EXPECT_EQ(check(words).status, 0);
  }
}

TEST(Check, EndsWithUnknownWhenNobodyCanReadTheResult) {
  const string server = "127.0.0.1:1";
  const auto full = [] { dup2(open("/dev/full", O_WRONLY), 1); };
  const auto closed = [] { close(1); };
  const auto broken = [] {
    int ends[2];
    if (pipe(ends) != 0) _exit(99);
    dup2(ends[1], 1);
    close(ends[0]);
    close(ends[1]);
    signal(SIGPIPE, SIG_DFL);
  };
  const std::function<void()> outputs[] = {full, closed, broken};
  for (const auto& output : outputs) {
    for (const Words& words : {Words{server}, Words{server, "--jsonl"},
                               Words{server, "--json"}, Words{"--help"}}) {
      EXPECT_EQ(check(words, {.prepare = output}).status, 3) << words.back();
    }
  }
  const auto no_memory = [] {
    const rlimit both = {4 << 20, 4 << 20};
    setrlimit(RLIMIT_AS, &both);
  };
  if (*VELPROBE_FAULT_SHIM == '\0') return;  // sanitizers map terabytes
  const int status = check({server}, {.prepare = no_memory}).status;
  EXPECT_TRUE(status == 3 || status == 2 || status == 127) << status;
}

TEST(Check, EndsWithAVerdictWhateverFails) {
  if (*VELPROBE_FAULT_SHIM == '\0') {
    GTEST_SKIP() << "the sanitizers leave no room for failing calls";
  }
  Server server;
  TempFolder folder;
  // No name: the C library's look-ups do not bear the want of memory.
  const string config =
      folder.write("c", "server_list=127.0.0.1\nname=a\n" + server.port_line());
  const std::pair<const char*, int> walks[] = {
      {"memory", 120},   {"socket", 4},     {"connect", 4}, {"read", 20},
      {"write", 8},      {"fcntl", 8},      {"open", 8},    {"ppoll", 4},
      {"setsockopt", 8}, {"getsockopt", 2}, {"fchmod", 1},  {"fsync", 2},
      {"sigaction", 4},  {"shutdown", 2},   {"setvbuf", 1},
  };
  int num_unknown = 0;
  for (const auto& [kind, times] : walks) {
    for (int nth = 1; nth <= times; ++nth) {
      const string fault = string(kind) + " " + std::to_string(nth) + " 12 0";
      const auto burden = [&] {
        setenv("VELPROBE_FAULT", fault.c_str(), 1);
        setenv("VELPROBE_FAULT_REPORT", "/dev/null", 1);
        setenv("LD_PRELOAD", VELPROBE_FAULT_SHIM, 1);
      };
      const string result = folder.write("result", "old");
      const Finished end = check({"-f", config, "--json", "--output", result},
                                 {.prepare = burden});
      EXPECT_TRUE(end.status >= 0 && end.status <= 3) << fault << end.status;
      const string written = *folder.read("result");
      EXPECT_TRUE(written == "old" ? end.status == 3 : Json::accept(written))
          << fault << end.output;
      num_unknown += end.status == 3;
    }
  }
  EXPECT_GT(num_unknown, 60);
}

TEST(Check, ReplacesTheOutputFileWhole) {
  TempFolder folder;
  const string server = "127.0.0.1:1";
  const string path = folder.write("result.prom", "old");
  chmod(path.c_str(), 0604);
  fs::create_symlink("result.prom", folder.path("link"));
  for (const char* name : {"result.prom", "link", "new"}) {
    const Finished result =
        check({server, "--prometheus", "--output", folder.path(name)});
    EXPECT_EQ(result.status, 2) << result.output;
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(folder.read(name)->starts_with("# HELP velcheck_status"));
    folder.write("result.prom", "old");
  }
  struct stat status {};
  ASSERT_EQ(lstat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0604U);
  EXPECT_TRUE(fs::is_symlink(folder.path("link")));
  EXPECT_EQ(check({server, "--output", "/dev/full"}).status, 3);
  const string log = folder.write("log", "older\n");
  const auto append = [&] { dup2(open(log.c_str(), O_WRONLY | O_APPEND), 1); };
  check({server, "--output", "/dev/stdout"}, {.prepare = append});
  EXPECT_TRUE(folder.read("log")->starts_with("older\nVELCHECK "));
  EXPECT_EQ(check({server, "--output", folder.path("no/file")}).status, 3);
  fs::create_symlink("no-file", folder.path("dangling"));
  EXPECT_EQ(check({server, "--output", folder.path("dangling")}).status, 3);
  EXPECT_EQ(check({server, "--output", folder.path("")}).status, 3);
  const auto small = [] {
    const rlimit both = {10, 10};
    setrlimit(RLIMIT_FSIZE, &both);
  };
  EXPECT_EQ(check({server, "--output", path}, {.prepare = small}).status, 3);
  EXPECT_EQ(folder.read("result.prom"), "old");
  // Nothing half-written stays behind.
  const fs::directory_iterator files(fs::path(path).parent_path());
  EXPECT_EQ(std::distance(begin(files), end(files)), 5);
}

}  // namespace
}  // namespace velprobe
