// velprobe and velstandin, the built programs, with each other.
#include "standin/trouble.h"

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "net/tcp.h"
#include "net/udp.h"
#include "probe/check_in_probe.h"
#include "probe/discovery_datagram.h"
#include "standin/nodes.h"
#include "support/bytes.h"
#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

using std::string;
using Words = std::vector<string>;

const string kRequest = bytes_of(
    "60 80 02 02 02 02 A1 80 04 01 61 04 01 64 04 00 01 01 01 01 01 01 01 01 "
    "01 00 00 00 00");
const string kAcknowledgement = bytes_of("62 80 00 00");

// RawClient speaks bytes; it leaves at the end.
class RawClient {
 public:
  explicit RawClient(int port, const string& bytes = "") {
    EXPECT_FALSE(socket_connect({127, 0, 0, 1},
                                static_cast<std::uint16_t>(port), socket_, 0));
    owner_ = FileDescriptor(socket_);
    say(bytes);
  }
  std::int32_t handle() const { return socket_; }
  void say(const string& bytes) {
    if (bytes.empty()) return;
    EXPECT_FALSE(socket_send(socket_, bytes.data(), bytes.size()));
  }
  string hear(std::size_t size = SIZE_MAX) {
    string heard;
    char buffer[4096];
    ssize_t count;
    while (heard.size() < size &&
           (count = recv(socket_, buffer, sizeof buffer, 0)) > 0) {
      heard.append(buffer, static_cast<std::size_t>(count));
    }
    return heard;
  }
  void finish() { shutdown(socket_, SHUT_WR); }
  unsigned data_segments() {
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info.tcpi_data_segs_in;
  }

 private:
  std::int32_t socket_ = -1;
  FileDescriptor owner_;
};

// What the lines about sessions say between the peer and the duration.
Words session_lines(const string& output) {
  static const std::regex kLine(
      R"re((?:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )127\.0\.0\.1:\d+: (.*); \d+ ms)re");
  Words lines;
  std::istringstream text(output);
  std::smatch match;
  for (string line; std::getline(text, line);) {
    if (std::regex_match(line, match, kLine)) lines.push_back(match[1]);
  }
  return lines;
}

bool has(const string& text, const string& part) {
  return text.find(part) != string::npos;
}

string source(const string& name) {
  std::ostringstream text;
  text << std::ifstream(VELPROBE_SOURCE_DIR "/" + name).rdbuf();
  return text.str();
}

class Standin : public testing::Test {
 protected:
  Server& start(const Words& options) { return server_.emplace(options); }
  string probe(const string& lines, const char* operation = "test") {
    return probe_at(lines, operation, server_->port_line());
  }
  string probe_at(const string& lines, const char* operation,
                  const string& port_line) {
    const string path = folder_.write("agent.conf", lines + "\n" + port_line);
    return run({VELPROBE_PROGRAM, path, operation}, {.input = "y\n"}).output;
  }

  TempFolder folder_;
  std::optional<Server> server_;
};

TEST_F(Standin, AnswersAsItIsTold) {
  const string asked = "version 0x0202, name \"a\", domain \"d\"; ";
  const string no_key =
      "Veltra Server does not support private key authentication.  Upgrade the "
      "Veltra Server.";
  const struct {
    Words options;
    string verdict;
    string session;
  } rows[] = {
      {{"--node", "b", "--node", "a"},
       "Connecting to server: OK.",
       "offered version 0x0202, private-key; acknowledged"},
      {{"--node", "b", "--reason", "%s?"},
       "Veltra Server rejected us: %s?",
       "refused: \"%s?\"; hung up"},
      {{"--offer-version", "0x02FF"},
       "Connecting to server: OK.",
       "offered version 0x02FF, private-key; acknowledged"},
      {{"--offer-version", "770"},
       "Veltra Server does not support our protocol version. Upgrade the "
       "Veltra Server, or downgrade the Veltra Agent.",
       "offered version 0x0302, private-key; hung up without acknowledging"},
      {{"--auth", "password"},
       no_key,
       "offered version 0x0202, password; hung up without acknowledging"},
      {{"--auth", "none"},
       no_key,
       "offered version 0x0202, none; hung up without acknowledging"},
      // Trouble of one agent leaves the others alone, and goes before that of
      // all.
      {{"--node", "b=refuse"},
       "Connecting to server: OK.",
       "offered version 0x0202, private-key; acknowledged"},
      {{"--trouble", "garbage", "--node", "a=refuse:50%: no=yes"},
       "Veltra Server rejected us: 50%: no=yes",
       "trouble refuse: refused: \"50%: no=yes\"; hung up"},
      {{"--trouble", "late:1", "--node", "b"},
       "Veltra Server rejected us: This agent is not expected here",
       "trouble late: refused: \"This agent is not expected here\"; hung up"},
  };
  for (const auto& row : rows) {
    Words options = row.options;
    options.insert(options.end(), {"--sessions", "1", "--no-discovery"});
    Server& server = start(options);
    const string shown = probe("name=a\ndomain=d\nserver_list=127.0.0.1");
    EXPECT_TRUE(has(shown, "...\n" + row.verdict + "\n")) << shown;
    EXPECT_EQ(session_lines(server.output()), Words{asked + row.session});
    EXPECT_EQ(server.wait(), 0);
  }
}

TEST_F(Standin, UnderstandsWhateverClientsSay) {
  const string head = "60 80 02 02 02 02 ";
  const struct {
    string bytes;
    string line;
  } rows[] = {
      {head + "A2 80 00 00 00 00 62 80 00 00",
       "version 0x0202, name \"\", domain \"\"; offered version 0x0202, "
       "private-key; acknowledged"},
      {head + "A0 80 00 00 00 00",
       "version 0x0202, name \"\", domain \"\"; offered version 0x0202, "
       "private-key; hung up without acknowledging"},
      {head + "A3 80 00 00 00 00",
       "version 0x0202, name \"\", domain \"\"; not answered; client_wants "
       "holds no known authentication element"},
      // An end-of-contents is no acknowledgement, whatever follows it.
      {head + "A0 80 00 00 00 00 00 62 80 00 00",
       "version 0x0202, name \"\", domain \"\"; offered version 0x0202, "
       "private-key; Wrong tag (0) encountered in read_negotiate_ack"},
      // A name that breaks off shows nothing that was not sent.
      {head + "A1 80 04 82 01 00 41",
       "version 0x0202, name \"A\", domain \"\"; not answered; "
       "client_private_key.name: Peer closed connection unexpectedly"},
      {"47 45 54",
       "no request; not answered; Wrong tag (58) encountered in "
       "read_client_wants_incomplete"},
      {"", "no request; not answered; Peer closed connection unexpectedly"},
  };
  Server& server = start({"--sessions", std::to_string(std::size(rows))});
  Words expected;
  for (const auto& row : rows) {
    RawClient client(server.port, bytes_of(row.bytes));
    client.finish();
    client.hear();
    expected.push_back(row.line);
  }
  Words lines = session_lines(server.output());
  std::sort(lines.begin(), lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected);
}

TEST_F(Standin, OffersInOneSegment) {
  RawClient client(start({}).port, kRequest);
  const string offer =
      bytes_of("61 80 02 02 02 02 A1 80 01 01 01 01 01 01 00 00 00 00");
  EXPECT_EQ(client.hear(offer.size()), offer);
  EXPECT_EQ(client.data_segments(), 1U);
}

TEST_F(Standin, LetsNoNameForgeALine) {
  const string name =
      "a\033[2J\r\xC2\x9B\", domain \"x\"; \\\xE2\x80\xAE\xE2\x81\xA6\xFF";
  const string lines = "name=" + name + "\nserver_list=127.0.0.1";
  Server& server = start({"--sessions", "1"});
  probe(lines);
  EXPECT_TRUE(has(server.output(),
                  R"(name "a?[2J???\", domain \"x\"; \\\u202E\u2066)"
                  "\xFF\", domain \"\"; "))
      << server.output();

  Program json(Server::command_of({"--sessions", "1", "--log", "jsonl"}));
  const auto listening = nlohmann::json::parse(json.read_until("\n"));
  const auto address = listening["address"].get<string>();
  probe_at(lines, "test", "server_port=" + address.substr(10) + "\n");
  std::istringstream text(json.output());
  std::vector<nlohmann::json> events;
  for (string line; std::getline(text, line);) {
    EXPECT_FALSE(has(line, "\xE2\x80\xAE"));
    events.push_back(nlohmann::json::parse(line));
  }
  ASSERT_EQ(events.size(), 4U);
  string whole = name;
  whole.replace(whole.size() - 1, 1, "\uFFFD");
  EXPECT_EQ(events[1]["event"], "session");
  EXPECT_EQ(events[1]["name"], whole);
  EXPECT_EQ(events[1]["version"], 0x0202);
  EXPECT_EQ(events[1]["trouble"], nullptr);
  EXPECT_EQ(events[1]["end"], "acknowledged");
  EXPECT_EQ(events[2]["offer"], 1);
  EXPECT_EQ(events[3]["sessions"], 1);
}

TEST_F(Standin, LeavesTheTimeToAJournal) {
  const string script =
      "exec 3>&1; JOURNAL_STREAM=$(stat -Lc %d:%i /dev/fd/3) exec \"$0\" "
      "\"$@\"";
  for (const bool is_journal : {false, true}) {
    Words command = {"/bin/sh", "-c",
                     is_journal ? script : "exec \"$0\" \"$@\""};
    for (const string& word : Server::command_of({})) command.push_back(word);
    Program server(command);
    server.read_until("\n");
    server.kill(SIGTERM);
    EXPECT_EQ(has(server.output(), "\nSummary: "), is_journal);
  }
}

TEST_F(Standin, EndsAtOnceAtASignal) {
  Server& idle = start({});
  idle.kill(SIGINT);
  EXPECT_EQ(session_lines(idle.output()), Words{});
  EXPECT_EQ(idle.wait(), 0);

  // Would last until the test's own limit: reading, pausing, and flooded.
  Server& busy =
      start({"--session-limit", "86400", "--node", "a=late:86400000"});
  RawClient reading(busy.port, "\x60");
  RawClient pausing(busy.port, kRequest);
  RawClient flooding(busy.port, bytes_of("60 80 02 02 02 02 A0 80"));
  std::thread flood([&] {
    const string nulls(1 << 20, '\x05');
    while (send(flooding.handle(), nulls.data(), nulls.size(), MSG_NOSIGNAL) >
           0) {
    }
  });
  usleep(100000);
  busy.kill(SIGTERM);
  const Words lines = session_lines(busy.output());
  shutdown(flooding.handle(), SHUT_RDWR);
  flood.join();
  EXPECT_EQ(lines.size(), 3U);
  for (const string& line : lines) {
    EXPECT_TRUE(line.ends_with("not answered; cut off: stopping")) << line;
  }
  EXPECT_EQ(busy.wait(), 0);
}

TEST_F(Standin, CutsASessionOffAfterItsLimit) {
  Server& server = start({"--session-limit", "1", "--sessions", "2"});
  const RawClient silent(server.port);
  RawClient dripping(server.port, bytes_of("60 80 02 02 02 02 A0 80"));
  std::thread drip([&] {
    while (send(dripping.handle(), "\x19", 1, MSG_NOSIGNAL) > 0) usleep(20000);
  });
  const Words lines = session_lines(server.output());
  shutdown(dripping.handle(), SHUT_RDWR);
  drip.join();
  EXPECT_EQ(lines.size(), 2U);
  for (const string& line : lines) {
    EXPECT_TRUE(line.ends_with("not answered; cut off: time is up")) << line;
  }
}

TEST_F(Standin, ServesBesideManyThatAreSilent) {
  Server& server = start({"--session-limit", "86400"});
  std::vector<std::unique_ptr<RawClient>> silent;
  for (int i = 0; i < 256; ++i) {
    silent.push_back(std::make_unique<RawClient>(server.port));
  }
  for (const char* name : {"a", "b"}) {
    EXPECT_TRUE(has(probe("name=" + string(name) + "\nserver_list=127.0.0.1"),
                    "Connecting to server: OK."));
  }
  server.kill(SIGTERM);
  const Words lines = session_lines(server.output());
  EXPECT_EQ(lines.size(), 258U);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "no request; not answered; cut off: made room"),
            1);
}

TEST_F(Standin, ServesBesideManyThatNeverAcknowledge) {
  Server& server = start({"--session-limit", "86400", "--max-sessions", "2"});
  const RawClient first(server.port, kRequest);
  const RawClient second(server.port, kRequest);
  EXPECT_TRUE(
      has(probe("name=a\nserver_list=127.0.0.1"), "Connecting to server: OK."));
}

TEST_F(Standin, AnswersQueriesBesideHangingSessions) {
  Server& server = start({"--session-limit", "86400", "--max-sessions", "1"});
  const RawClient hanging(server.port, kRequest);
  const RawClient waiting(server.port);
  std::int32_t handle = -1;
  ASSERT_TRUE(udp_open(handle));
  const FileDescriptor socket(handle);
  const auto query = build_discovery_query();
  ASSERT_FALSE(udp_send(handle, {127, 0, 0, 1},
                        static_cast<std::uint16_t>(server.port), query.data(),
                        query.size()));
  ASSERT_TRUE(socket_wait_readable(handle, 10));
  DiscoveryDatagram answer{};
  ssize_t length = answer.size();
  Ipv4Address sender{};
  std::uint16_t port = 0;
  EXPECT_FALSE(udp_receive(handle, sender, port, answer.data(), length));
  EXPECT_EQ(answer, build_discovery_answer());
  EXPECT_EQ(port, server.port);
}

TEST_F(Standin, EndsWhenItsLogCannotBeWritten) {
  Words words = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full"};
  const Words own = Server::command_of({});
  words.insert(words.end(), own.begin(), own.end());
  const Finished full = run(words);
  EXPECT_EQ(full.output,
            "velstandin: Error writing the log: No space left on device\n");
  EXPECT_EQ(full.status, 1);

  // A reader that leaves after the first line: the next session is the last.
  Server& server = start({});
  server.close_output();
  RawClient(server.port).finish();
  EXPECT_EQ(server.wait(), 1);
}

TEST_F(Standin, ServesAndEndsWhileNobodyReadsItsLog) {
  string names;  // more than a pipe takes
  for (int i = 0; i < 5000; ++i) names += std::to_string(i) + "-of-many\n";
  Server& server = start({"--node-file", folder_.write("nodes", names)});
  server.kill(SIGUSR1);
  RawClient client(server.port, kRequest);
  EXPECT_FALSE(client.hear(1).empty());
  while (!server.is_ended()) {
    server.kill(SIGTERM);
    usleep(10000);
  }
  EXPECT_EQ(server.wait(), -SIGTERM);
}

TEST_F(Standin, GoesOnWhenDescriptorsRunOut) {
  Program server(Server::command_of({"--session-limit", "86400"}),
                 {.prepare = [] {
                   const rlimit few{10, 10};
                   setrlimit(RLIMIT_NOFILE, &few);
                 }});
  const string& line = server.read_until("\n");
  const int port = std::stoi(line.substr(line.find(':') + 1));
  std::vector<std::unique_ptr<RawClient>> silent;
  for (int i = 0; i < 8; ++i) {
    silent.push_back(std::make_unique<RawClient>(port));
  }
  server.read_until("Error accepting connection: Too many open files; waiting");
  EXPECT_TRUE(has(probe_at("name=a\nserver_list=127.0.0.1", "test",
                           "server_port=" + std::to_string(port) + "\n"),
                  "Connecting to server: OK."));
  server.kill(SIGTERM);
  const string& output = server.output();
  EXPECT_EQ(output.find("waiting for room"), output.rfind("waiting for room"));
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(Standin, KnowsItsNodes) {
  const string file = folder_.write(
      "nodes", "# rack 1\n\n  web1 \r\nweb2=refuse:moved\nweb3\nweb2=escape\n");
  Server& server = start({"--node-file", file});
  const auto verdict = [&](const string& name) {
    const string shown = probe("name=" + name + "\nserver_list=127.0.0.1");
    const std::size_t begin = shown.find("...\n") + 4;
    return shown.substr(begin, shown.find('\n', begin) - begin);
  };
  const string refused = "Veltra Server rejected us: ";
  EXPECT_EQ(verdict("web1"), "Connecting to server: OK.");
  EXPECT_TRUE(verdict("web2").starts_with(refused + "\033[2J"));
  EXPECT_EQ(verdict("new"), refused + "This agent is not expected here");

  // Each fault of a file is told with its line, and nothing changes.
  const std::pair<string, string> faults[] = {
      {"new\nx=nonsense\n", ":2: unknown kind of trouble"},
      {"new\nx=silent:at-once\n",
       ":2: this trouble comes before the agent's name"},
      {"new\n=late\n", ":2: a node needs a name of 1 to 256 bytes"},
      {"new\n" + string(3000, 'x'), ":2: the line is too long"},
      {string("new\nx\0y\nz\n", 10), ":2: the line holds a NUL"},
  };
  for (const auto& [bytes, complaint] : faults) {
    folder_.write("nodes", bytes);
    server.kill(SIGHUP);
    server.read_until("velstandin: " + file + complaint +
                      "; the nodes stay as they are\n");
    EXPECT_EQ(run({VELSTANDIN_PROGRAM, "--node-file", file}).output,
              "velstandin: " + file + complaint + "\n");
  }
  EXPECT_NE(verdict("new"), "Connecting to server: OK.");

  folder_.write("nodes", "web1=close\nnew\nlast");
  server.kill(SIGHUP);
  while (verdict("new") != "Connecting to server: OK.") usleep(10000);
  EXPECT_EQ(verdict("web1"), "Peer closed connection unexpectedly");
  server.kill(SIGUSR1);
  const string& shown = server.read_until("\"web2\": ");
  EXPECT_TRUE(has(shown, "Node \"last\": never came\n")) << shown;
  EXPECT_TRUE(has(shown, "Node \"web1\": sessions 2\n")) << shown;
  server.kill(SIGTERM);
  EXPECT_TRUE(has(server.output(), "\"web2\": sessions 1, not expected\n"));
}

TEST(Nodes, KeepAThousandStrangersAndEachNameOnce) {
  standin::NodeTable table;
  for (const char* entry : {"b", "c", "a=late", "b=refuse:no", "a"}) {
    EXPECT_FALSE(table.add_entry(entry));
  }
  table.sort();
  ASSERT_EQ(table.nodes().size(), 3U);
  EXPECT_EQ(table.find("a")->trouble.kind, nullptr);
  EXPECT_STREQ(table.find("b")->trouble.text.get(), "no");
  EXPECT_EQ(table.find("d"), nullptr);

  standin::NodeRegister nodes;
  nodes.replace(std::move(table));
  for (int i = 0; i < 1100; ++i) {
    bool is_accepted = true;
    standin::Trouble trouble;
    EXPECT_FALSE(nodes.decide(std::to_string(i).c_str(), is_accepted, trouble));
    EXPECT_FALSE(is_accepted);
  }
  std::size_t num_nodes = 0;
  nodes.visit([&](const standin::Node&, bool) { ++num_nodes; });
  EXPECT_EQ(num_nodes, 3 + standin::NodeRegister::kMaxStrangers);
}

TEST(Troubles, TakeTheirShareOfAnyHundred) {
  standin::TroubleMix sessions, queries;
  for (const char* share : {"silent:30%", "refuse:a:b:7%", "discovery-twice"}) {
    EXPECT_FALSE(standin::add_share(share, sessions, queries));
  }
  for (const char* bad : {"late:64%", "late:101%", "late:0%", "late:%", "5%"}) {
    EXPECT_TRUE(standin::add_share(bad, sessions, queries)) << bad;
  }
  std::map<string, int> counts;
  for (std::uint64_t turn = 4294967250; turn < 4294967350; ++turn) {
    const standin::Trouble* trouble = pick(sessions, turn);
    ++counts[trouble == nullptr ? "" : trouble->kind->name];
    EXPECT_STREQ(pick(queries, turn)->kind->name, "discovery-twice");
    if (trouble != nullptr && trouble->kind->plan != nullptr) {
      EXPECT_STREQ(trouble->text.get(), "a:b");
    }
  }
  EXPECT_EQ(counts,
            (std::map<string, int>{{"", 63}, {"refuse", 7}, {"silent", 30}}));
}

TEST(Troubles, AreTheSameInHelpManualAndPage) {
  const std::regex blanks("\\s+");
  const string help = std::regex_replace(
      run({VELSTANDIN_PROGRAM, "--help"}).output, blanks, " ");
  const string manual = source("docs/man/velstandin.1");
  const string page = source("docs/rehearsal.md");
  std::size_t num_sections = 0;
  for (std::size_t at = 0; (at = page.find("\n### ", at + 1)) != page.npos;) {
    ++num_sections;
  }
  EXPECT_EQ(standin::trouble_kinds().size(), num_sections);
  for (const standin::TroubleKind& kind : standin::trouble_kinds()) {
    const int num_effects = (kind.plan != nullptr) + (kind.deliver != nullptr) +
                            (kind.respond != nullptr);
    EXPECT_EQ(num_effects, 1) << kind.name;
    standin::Line usage_line, help_line;
    add_usage(usage_line, kind);
    add_help(help_line, kind);
    const string usage(usage_line.view());
    string text(help_line.view());
    EXPECT_TRUE(has(help, " " + usage + " " + text + " ")) << usage;
    EXPECT_TRUE(has(page, "\n### `" + usage + "`: " + text + "\n")) << usage;
    text[0] = static_cast<char>(std::toupper(text[0]));
    EXPECT_TRUE(has(manual, "\n.It Cm " + usage + "\n" + text + ".\n"))
        << usage;
  }
}

TEST(Troubles, LookAsThePageShows) {
  if (!enter_own_network()) GTEST_SKIP() << "no network of one's own";
  const string program = VELSTANDIN_PROGRAM;
  const string build = program.substr(0, program.find("/tools/standin/"));
  const Finished shown =
      run({VELPROBE_SOURCE_DIR "/scripts/rehearsal.sh", "--here", build});
  EXPECT_EQ(shown.status, 0) << shown.output;
  const string page = source("docs/rehearsal.md") + "\n";
  EXPECT_EQ(page.substr(page.find("### `")), shown.output);
}

TEST_F(Standin, RefusesBadUsage) {
  const Words rows[] = {
      {"--port", "65536"},
      {"--listen", "localhost"},
      {"--offer-version", "-1"},
      {"--auth", "key"},
      {"--sessions", "0"},
      {"--node", ""},
      {"--node", "a=b"},
      {"--node", "a=discovery-late"},
      {"--reason"},
      {"stray"},
      {"--reason", string(1025, 'r')},
      {"--trouble", "refuse:" + string(1025, 'r')},
      {"--trouble", "close:later"},
      {"--trouble", "slow:-1"},
      {"--trouble", "garbage:1"},
      {"--trouble", "discovery-other-address:127.1"},
      {"--trouble", "half", "--trouble", "late"},
      {"--max-sessions", "10001"},
      {"--session-limit", "0"},
      {"--log", "xml"},
  };
  for (Words words : rows) {
    words.insert(words.begin(), VELSTANDIN_PROGRAM);
    const Finished result = run(words);
    EXPECT_EQ(result.status, 2) << words[1];
    EXPECT_FALSE(result.output.empty());
  }
  for (const char* word : {"--help", "--version"}) {
    const Finished result =
        run({VELSTANDIN_PROGRAM, word}, {.prepare = [] { close(2); }});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(has(result.output, "velstandin"));
  }
}

TEST_F(Standin, TellsWhyItCannotStart) {
  const string port = std::to_string(start({}).port);
  const std::pair<Words, string> rows[] = {
      {{"--port", port}, "Error binding socket: Address already in use"},
      {{"--port", port, "--listen", "127.0.0.2"},
       "Error binding discovery socket: Address already in use"},
      {{"--port", "0", "--trouble", "discovery-other-address:192.0.2.1"},
       "Error answering from another address: Cannot assign requested address"},
      {{"--node-file", "/nowhere"}, "/nowhere: No such file or directory"},
  };
  for (const auto& [options, complaint] : rows) {
    Words command = options;
    command.insert(command.begin(), VELSTANDIN_PROGRAM);
    const Finished result = run(command);
    EXPECT_EQ(result.output, "velstandin: " + complaint + "\n");
    EXPECT_EQ(result.status, 1);
  }
}

TEST_F(Standin, GetsByWithFaultsOfTheSystem) {
  if (*VELPROBE_FAULT_SHIM == '\0') {
    GTEST_SKIP() << "no faults under a sanitizer";
  }
  const auto command = [&](const string& fault) {
    Words words = {"/bin/sh", "-c",
                   "VELPROBE_FAULT='" + fault + "' VELPROBE_FAULT_REPORT='" +
                       folder_.path("report") + "' LD_PRELOAD='" +
                       VELPROBE_FAULT_SHIM "' exec \"$0\" \"$@\""};
    const Words own = Server::command_of({"--sessions", "1"});
    words.insert(words.end(), own.begin(), own.end());
    return words;
  };
  const std::pair<string, string> ends[] = {
      {"sigaction 1 22 1", "sigaction on SIGPIPE failed: Invalid argument"},
      {"sigaction 2 22 1", "Error watching signals: Invalid argument"},
      {"signalfd 1 24 1", "Error watching signals: Too many open files"},
      {"socket 1 24 1", "Error creating socket: Too many open files"},
      {"setsockopt 1 92 1",
       "Error setting SO_REUSEADDR: Protocol not available"},
      {"listen 1 98 1", "Error listening: Address already in use"},
      {"getsockname 1 105 1", "Error reading the port chosen by the system"},
      {"eventfd 1 24 1",
       "Error creating event descriptor: Too many open files"},
      {"ppoll 1 12 1", "Error waiting for clients: Cannot allocate memory"},
  };
  for (const auto& [fault, complaint] : ends) {
    const Finished result = run(command(fault));
    EXPECT_TRUE(result.output.ends_with("velstandin: " + complaint + "\n"))
        << fault << result.output;
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(has(folder_.read("report").value_or(""), "left-open 0\n"));
  }
  // These pass, with a word about it, and the client is served.
  const std::pair<string, string> delays[] = {
      {"accept4 1 24 0",
       "Error accepting connection: Too many open files; waiting for room\n"},
      {"accept4 1 103 0", ""},
      {"pthread_create 1 11 0",
       "Error starting thread: Resource temporarily unavailable; waiting for "
       "room\n"},
      {"sendto 1 1 0", ""},
  };
  for (const auto& [fault, complaint] : delays) {
    Program server(command(fault));
    const string& line = server.read_until("Listening on 127.0.0.1:");
    const string port =
        server.read_until("\n").substr(line.find("127.0.0.1:") + 10);
    EXPECT_TRUE(has(probe_at("name=a\nserver_list=127.0.0.1", "test",
                             "server_port=" + port),
                    "Connecting to server: OK."));
    EXPECT_TRUE(has(server.output(), complaint)) << server.output();
    EXPECT_EQ(server.wait(), 0);
  }
  // Without memory it may fail or serve, but not crash.
  for (int nth = 1; nth < 40; ++nth) {
    Program server(command("memory " + std::to_string(nth) + " 12 0"));
    const string line = server.read_until("\n");
    if (has(line, "Listening on")) {
      const int port = std::stoi(line.substr(line.find("127.0.0.1:") + 10));
      ProbeResult result;
      static_cast<void>(probe_server(
          "127.0.0.1", static_cast<std::uint16_t>(port), {}, result));
    }
    server.output();
    EXPECT_GE(server.wait(), 0) << nth;
  }
}

TEST_F(Standin, IsFoundByAScan) {
  if (!enter_own_network()) GTEST_SKIP() << "no network of one's own";
  Server& server = start({"--sessions", "1"});
  const string shown = probe("name=a\nserver_list=localhost", "configure");
  EXPECT_TRUE(shown.starts_with(
      "Will scan for a Veltra Server listening on port " +
      std::to_string(server.port) +
      "...\nFound Veltra server \"127.0.0.1\"\n\nTrying to connect"))
      << shown;
  EXPECT_EQ(server.wait(), 0);
  EXPECT_EQ(folder_.read("agent.conf"), "name=a\nserver_list=127.0.0.1\n" +
                                            server.port_line() + "domain=.\n");
}

}  // namespace
}  // namespace velprobe
