// The built velprobe against scripted servers, as its users and their scripts
// see it: every byte of output and the exit status.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/program.h"
#include "support/scripted_peer.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

const std::string kProgram = VELPROBE_PROGRAM;
const std::string kUsage = "Usage: velprobe agent.conf (test|configure)\n";

const std::string kAccept =
    bytes_of("61 80 02 02 02 02 A1 80 01 01 01 01 01 01 00 00 00 00");
const std::string kAck = "62 80 00 00";

std::string refusal(const std::string& reason) {
  const char length[] = {static_cast<char>(reason.size() >> 8),
                         static_cast<char>(reason.size() & 0xFF)};
  return bytes_of("63 80 04 82").append(length, 2) + reason + bytes_of("00 00");
}

const std::string kAllOk = "\nTest completed successfully. All OK.\n\n";
const std::string kNobody =
    "\nFound no Veltra server willing to accept us, sorry.\n"
    "You may want to try 'configure' instead of 'test'.\n";
const std::string kAdvice =
    "You may keep this agent configuration, but afterward you\n"
    "should log in to the Veltra server, and configure a Node.\n"
    "The name of that Node must be the same as the name specified\n"
    "in the configuration of this agent. The easiest way to do this, is to\n"
    "start this agent and let it check in. This will show a box in the\n"
    "web interface (under the configure tab) allowing you to add the newly\n"
    "checked in agent as a Node.\n";
const std::string kAddNode =
    "\nIt appears this agent is not yet configured on the Veltra Server.\n" +
    kAdvice +
    "\nTest completed with partial success -> Add node on server.\n\n";

std::string trying(const std::string& server, int port) {
  return "Trying to connect to Veltra server \"" + server + "\" on port " +
         std::to_string(port) + " ...\n";
}

// A server beside a peer, on the same port of 127.0.0.2, that refuses everyone.
Server refusing_beside(const ScriptedPeer& peer) {
  return Server({"--listen", "127.0.0.2", "--port", std::to_string(peer.port()),
                 "--node", "b", "--no-discovery", "--reason", "no"});
}
const std::string kRefused = "Veltra Server rejected us: no\n";

class EndToEnd : public testing::Test {
 protected:
  // Runs velprobe on a file with these lines; the port is the peer's.
  Finished velprobe(const std::string& operation, const std::string& lines,
                    const Options& options = {}) {
    path_ = folder_.write("agent.conf", lines);
    return run({kProgram, path_, operation}, options);
  }
  Finished test_against(ScriptedPeer& peer, const Options& options = {}) {
    return velprobe("test", peer.config(), options);
  }

  TempFolder folder_;
  std::string path_;
};

TEST_F(EndToEnd, ComplainsAboutTheCommandLine) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, "Invalid number of arguments\n" + kUsage},
      {{"f", "test", "more"}, "Invalid number of arguments\n" + kUsage},
      {{"f", "Test%s%n"}, "Operation \"Test%s%n\" not implemented\n" + kUsage},
  };
  for (auto [command, output] : rows) {
    command.insert(command.begin(), kProgram);
    const Finished result = run(command);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.status, 1);
    // Complaints are for standard error alone.
    EXPECT_EQ(run(command, {.prepare = [] { close(2); }}).output, "");
  }
}

TEST_F(EndToEnd, TellsWhatEachAnswerMeans) {
  const std::string offer = "61 80 02 02 ";
  const std::string key = " A1 80 01 01 01 01 01 01 00 00 ";
  const std::string long_reason(1024, 'r');
  const struct {
    const char* name;
    std::string answer;
    std::string line;
    const std::string* verdict;
  } rows[] = {
      {"accepted", kAccept, "Connecting to server: OK.", &kAllOk},
      {"version and more may differ",
       bytes_of(offer + "02 FF" + key + "05 00 00 00"),
       "Connecting to server: OK.", &kAllOk},
      {"version judged after the key",
       bytes_of(offer + "03 02 A2 80 00 00 00 00"),
       "Veltra Server does not support private key authentication.  Upgrade "
       "the Veltra Server.",
       &kNobody},
      {"version judged after the whole offer", bytes_of(offer + "03 02" + key),
       "Peer closed connection unexpectedly", &kNobody},
      {"refused, and text is data", refusal("go away %s%n"),
       "Veltra Server rejected us: go away %s%n", &kAddNode},
      {"cut at 255", refusal(long_reason),
       "Veltra Server rejected us: " + long_reason.substr(0, 228), &kAddNode},
      {"foreign", bytes_of("A1 80 00 00"),
       "Veltra Server using incompatible protocol", &kNobody},
      {"broken refusal", bytes_of("63 80 04 01 61 00 01"),
       "List not terminated correctly in skip_to_eol", &kNobody},
  };
  for (const auto& row : rows) {
    for (std::size_t piece : {0U, 1U}) {
      SCOPED_TRACE(row.name);
      ScriptedPeer peer({.answer = row.answer, .piece = piece});
      const Finished result = test_against(peer);
      EXPECT_EQ(result.output, trying("127.0.0.1", peer.port()) + row.line +
                                   "\n" + *row.verdict);
      EXPECT_EQ(result.status, 0);
      peer.stop();
      EXPECT_EQ(hex_of(peer.rest()), row.verdict == &kAllOk ? kAck : "");
    }
  }
}

TEST_F(EndToEnd, SendsOneSegmentEachWay) {
  ScriptedPeer peer({.answer = kAccept});
  test_against(peer);
  peer.stop();
  EXPECT_EQ(hex_of(peer.request()),
            "60 80 02 02 02 02 A1 80 04 01 61 04 00 04 00 01 01 01 01 01 01 "
            "01 01 01 00 00 00 00");
  EXPECT_EQ(peer.data_segments(), 2U);
}

TEST_F(EndToEnd, SumsUpOverTheServers) {
  ScriptedPeer accepting({.answer = kAccept});
  const std::string port = std::to_string(accepting.port());
  const Server refusing = refusing_beside(accepting);
  const std::string ok =
      trying("127.0.0.1", accepting.port()) + "Connecting to server: OK.\n";
  const std::string refused = trying("127.0.0.2", accepting.port()) + kRefused;
  const std::string unreachable = trying("127.0.0.3", accepting.port()) +
                                  "Error connecting: Connection refused\n";
  const std::string some =
      "\nThis agent could only check in to some of specified servers.\n\n"
      "Test completed with partial success \n"
      "     -> Some, but not all servers accepted connection.\n\n";
  const std::pair<std::string, std::string> rows[] = {
      {"127.0.0.2,127.0.0.1", refused + ok + some},
      // An unreachable server has no weight beside others.
      {"127.0.0.3,127.0.0.1", unreachable + ok + kAllOk},
      {"127.0.0.2,127.0.0.3", refused + unreachable + kAddNode},
      // An empty entry ends the list.
      {"127.0.0.1,,127.0.0.1", ok + kAllOk},
      {",127.0.0.1", kNobody.substr(1)},
  };
  for (const auto& [servers, output] : rows) {
    const std::string lines = "name=a\nserver_port=" + port + "\nserver_list=";
    EXPECT_EQ(velprobe("test", lines + servers).output, output);
  }
}

TEST_F(EndToEnd, ReadsThePortAsTheyWroteIt) {
  const std::pair<std::string, int> rows[] = {
      {"", 3241},
      {"server_port=", 0},
      {"server_port=7abc", 7},
      {"server_port=0x1F", 31},
      {"server_port=010", 8},
      {"server_port=65543", 7},
  };
  for (const auto& [line, port] : rows) {
    const Finished result =
        velprobe("test", "server_list=255.255.255.255\n" + line);
    EXPECT_TRUE(result.output.starts_with(trying("255.255.255.255", port)))
        << result.output;
  }
}

TEST_F(EndToEnd, ShowsEachLineBeforeItWaits) {
  ScriptedPeer silent({.hear = SIZE_MAX});
  Program program({kProgram, folder_.write("f", silent.config()), "test"});
  EXPECT_EQ(program.read_until("...\n"), trying("127.0.0.1", silent.port()));
  // Its input never comes and never ends.
  const auto silent_input = [] {
    alarm(10);
    int ends[2];
    dup2(pipe(ends) == 0 ? ends[0] : -1, 0);
  };
  Program asking({kProgram, folder_.path("none"), "test"},
                 {.prepare = silent_input});
  EXPECT_TRUE(asking.read_until("(y/n) ").ends_with("(y/n) "));
}

TEST_F(EndToEnd, AsksBeforeItCreatesAFile) {
  const std::string path = folder_.path("none.conf");
  const std::string question = "The configuration file " + path +
                               " does not seem to exist, create one? (y/n) ";
  const std::string missing = "Could not open configuration file " + path +
                              ": No such file or directory\n";
  const struct {
    const char* input;
    std::string answer;
    int status;
  } rows[] = {
      {"n\n", missing, 1},
      {"Y\n", missing, 1},
      {"", "Error from input_line: fgets returned error\n", 1},
      {"yes\n", kNobody.substr(1), 0},
  };
  for (const auto& row : rows) {
    const Finished result = run({kProgram, path, "test"}, {.input = row.input});
    EXPECT_EQ(result.output, question + row.answer);
    EXPECT_EQ(result.status, row.status);
  }
}

class Configure : public EndToEnd {
 protected:
  std::string configured(const std::string& list) {
    return "This Veltra agent is already configured to check in to the Veltra "
           "server:\n\"" +
           list + "\", do you want to scan for the Veltra server anyway? ";
  }
  std::string offer(const std::string& server, const std::string& name,
                    const std::string& domain) {
    return "\nVeltra server name: \"" + server + "\"\nVeltra agent name: \"" +
           name + "\"\nVeltra agent domain: \"" + domain +
           "\"\n\nDo you want to update the configuration file of this "
           "Veltra agent\nwith the above information? (y/N) ";
  }
};

TEST_F(Configure, RewritesTheFileAfterAYes) {
  ScriptedPeer accepting({.answer = kAccept});
  const Server refusing = refusing_beside(accepting);
  const std::string servers = "127.0.0.3,127.0.0.2,127.0.0.1";
  const std::string port = std::to_string(accepting.port());
  const std::string before = "# mine\r\n server_list = " + servers +
                             "\r\nserver_port=" + port + "\nother=1\n";
  const Finished result = velprobe("configure", before, {.input = "n\nyes\n"});
  const std::string address =
      "Agent name not specified in " + path_ +
      ".\nWill use IP address as agent name \"127.0.0.1\"\n";
  EXPECT_EQ(
      result.output,
      configured(servers) + "(y/N) \n" + trying("127.0.0.3", accepting.port()) +
          "Error connecting: Connection refused\n" +
          trying("127.0.0.2", accepting.port()) + address + kRefused +
          trying("127.0.0.1", accepting.port()) + address +
          "Connecting to server: OK.\n\n"
          "This agent could only check in to some of specified servers.\n\n"
          "Found the following working settings:\n" +
          offer("127.0.0.2,127.0.0.1", "127.0.0.1", ".") + "Updating \"" +
          path_ + "\" ...\nConfiguration succesfully updated.\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(folder_.read("agent.conf"),
            "# mine\r\n server_list = 127.0.0.2,127.0.0.1\r\nserver_port=" +
                port + "\nother=1\ndomain=.\nname=127.0.0.1\n");
  EXPECT_EQ(folder_.read("agent.conf.bak"), before);
}

TEST_F(Configure, LeavesTheFileWithoutAYes) {
  ScriptedPeer refusing({.answer = refusal("no")});
  const std::string before = refusing.config() + "domain=d\n";
  const std::string until_question =
      configured("127.0.0.1") + "(y/N) \n" +
      trying("127.0.0.1", refusing.port()) + kRefused +
      "\nFound the following settings, but it appears this agent is not \n"
      "yet configured on the Veltra Server.\n" +
      kAdvice + offer("127.0.0.1", "a", "d");
  // The end of "no, thankyou" is too long for the first question.
  for (const char* input : {"\nY\n", "no, thankyou\n"}) {
    const Finished result = velprobe("configure", before, {.input = input});
    EXPECT_EQ(result.output, until_question);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(folder_.read("agent.conf"), before);
  }
}

// The server's words, and those of a file that may be another account's.
TEST_F(Configure, KeepsATerminalFromBeingDriven) {
  const std::string words = "\033[2J\r\bConnecting to server: OK.\xC2\x9B";
  const std::string shown = "?[2J??Connecting to server: OK.??";
  ScriptedPeer peer({.answer = refusal(words)});
  const std::string lines =
      "domain=d\033[2J\nserver_port=" + std::to_string(peer.port()) +
      "\nserver_list=127.0.0.1,," + words + "\nname=n\033[2J\n";
  for (const bool on_terminal : {false, true}) {
    const Finished result = velprobe(
        "configure", lines, {.input = "n\nn\n", .on_terminal = on_terminal});
    const std::string want = on_terminal ? shown : words;
    const std::string clear = want.substr(0, want.find('J') + 1);
    for (const std::string& text :
         {"\"127.0.0.1,," + want + "\", do you want", "rejected us: " + want,
          "agent name: \"n" + clear + "\"", "domain: \"d" + clear + "\""}) {
      EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    }
  }
}

}  // namespace
}  // namespace velprobe
