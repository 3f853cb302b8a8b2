// The built velprobe against scripted servers, as its users and their scripts
// see it: every byte of output and the exit status.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "bytes.h"
#include "program.h"
#include "scripted_peer.h"
#include "temp_folder.h"

namespace velprobe {
namespace {

const std::string kProgram = VELPROBE_PROGRAM;
const std::string kUsage = "Usage: velprobe agent.conf (test|configure)\n";

const std::string kAccept =
    bytes_of("61 80 02 02 02 02 A1 80 01 01 01 01 01 01 00 00 00 00");
const std::string kAck = "62 80 00 00";

std::string refusal(const std::string& reason) {
  const std::size_t size = reason.size();
  std::string length(1, static_cast<char>(size));
  if (size >= 128) {
    length = bytes_of("82") + static_cast<char>(size >> 8) +
             static_cast<char>(size & 0xFF);
  }
  return bytes_of("63 80 04") + length + reason + bytes_of("00 00");
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

class EndToEnd : public testing::Test {
 protected:
  // Runs velprobe on a file with these lines; the port is the peer's.
  Finished velprobe(const std::string& operation, const std::string& lines,
                    const Options& options = {}) {
    path_ = folder_.write("agent.conf", lines);
    return run({kProgram, path_, operation}, options);
  }
  // The same against a peer, for an agent with a name and one server.
  Finished test_against(ScriptedPeer& peer, const Options& options = {}) {
    return velprobe("test",
                    "name=a\nserver_list=127.0.0.1\nserver_port=" +
                        std::to_string(peer.port()) + "\n",
                    options);
  }

  TempFolder folder_;
  std::string path_;
};

TEST_F(EndToEnd, ComplainsAboutTheCommandLine) {
  const std::string path = folder_.write("agent.conf", "");
  const struct {
    std::vector<std::string> arguments;
    std::string output;
  } rows[] = {
      {{}, "Invalid number of arguments\n" + kUsage},
      {{path, "test", "more"}, "Invalid number of arguments\n" + kUsage},
      {{path, "Test"}, "Operation \"Test\" not implemented\n" + kUsage},
      {{path, "%s%n"}, "Operation \"%s%n\" not implemented\n" + kUsage},
  };
  for (const auto& row : rows) {
    std::vector<std::string> command = row.arguments;
    command.insert(command.begin(), kProgram);
    const Finished result = run(command);
    EXPECT_EQ(result.output, row.output);
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
      {"minor version may differ",
       bytes_of(offer + "02 FF" + key + "05 00 00 00"),
       "Connecting to server: OK.", &kAllOk},
      {"major version may not", bytes_of(offer + "03 02" + key + "00 00"),
       "Veltra Server does not support our protocol version. Upgrade the "
       "Veltra Server, or downgrade the Veltra Agent.",
       &kNobody},
      {"version judged after the key",
       bytes_of(offer + "03 02 A2 80 00 00 00 00"),
       "Veltra Server does not support private key authentication.  Upgrade "
       "the Veltra Server.",
       &kNobody},
      {"version judged after the whole offer", bytes_of(offer + "03 02" + key),
       "Peer closed connection unexpectedly", &kNobody},
      {"refused", refusal("go away"), "Veltra Server rejected us: go away",
       &kAddNode},
      {"text is data", refusal("%s%n"), "Veltra Server rejected us: %s%n",
       &kAddNode},
      {"refused without words", refusal(""),
       "Veltra Server rejected us: ", &kAddNode},
      {"cut at 255", refusal(long_reason),
       "Veltra Server rejected us: " + long_reason.substr(0, 228), &kAddNode},
      {"reason too long", refusal(long_reason + "r"),
       "negotiate_nack.reason: data out of range in read_string", &kNobody},
      {"broken refusal", bytes_of("63 80 04 01 61 00 01"),
       "List not terminated correctly in skip_to_eol", &kNobody},
      {"foreign", bytes_of("A1 80 00 00"),
       "Veltra Server using incompatible protocol", &kNobody},
      {"definite", bytes_of("61 04 02 02 02 02"),
       "Definite length read in read_server_offers_incomplete", &kNobody},
      {"silent end", "", "Peer closed connection unexpectedly", &kNobody},
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
  velprobe("test", "name=a\ndomain=d\nserver_list=127.0.0.1\nserver_port=" +
                       std::to_string(peer.port()));
  peer.stop();
  EXPECT_EQ(hex_of(peer.request()),
            "60 80 02 02 02 02 A1 80 04 01 61 04 01 64 04 00 01 01 01 01 01 01 "
            "01 01 01 00 00 00 00");
  EXPECT_EQ(peer.data_segments(), 2U);
}

TEST_F(EndToEnd, SurvivesAResetAtAnyByte) {
  for (std::size_t cut = 0; cut <= kAccept.size(); ++cut) {
    ScriptedPeer peer({.answer = kAccept.substr(0, cut), .reset = true});
    const Finished result = test_against(peer);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("\nTest completed successfully.") !=
                  std::string::npos,
              result.output.find(kNobody) != std::string::npos)
        << cut << result.output;
  }
}

TEST_F(EndToEnd, SumsUpOverTheServers) {
  ScriptedPeer accepting({.answer = kAccept});
  const std::string port = std::to_string(accepting.port());
  const std::string ok = "Connecting to server: OK.\n";
  const std::string there = trying("127.0.0.1", accepting.port());
  const struct {
    std::string lines;
    std::string output;
  } rows[] = {
      {"server_list=127.0.0.1,127.0.0.1", there + ok + there + ok + kAllOk},
      // An unreachable server has no weight beside one that accepts.
      {"server_list=127.0.0.2,127.0.0.1",
       trying("127.0.0.2", accepting.port()) +
           "Error connecting: Connection refused\n" + there + ok + kAllOk},
      // An empty entry ends the list; blanks belong to a name.
      {"server_list=127.0.0.1,,127.0.0.1", there + ok + kAllOk},
      {"server_list=,127.0.0.1", kNobody.substr(1)},
      {"", kNobody.substr(1)},
      {"server_list=127.0.0.2 x",
       trying("127.0.0.2 x", accepting.port()) +
           "Error resolving \"127.0.0.2 x\": Host name not found\n" + kNobody},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const Finished result =
        velprobe("test", "name=a\nserver_port=" + port + "\n" + row.lines);
    if (result.output.find("Temporary error") == std::string::npos) {
      EXPECT_EQ(result.output, row.output);
    }
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(EndToEnd, ReadsThePortAsTheyWroteIt) {
  char hex[16];
  char octal[16];
  ScriptedPeer peer({.answer = kAccept});
  std::snprintf(hex, sizeof hex, "0x%X", peer.port());
  std::snprintf(octal, sizeof octal, "0%o", peer.port());
  for (const std::string& text :
       {std::to_string(peer.port()) + "abc", std::string(hex),
        std::string(octal), std::to_string(peer.port() + 65536)}) {
    EXPECT_EQ(velprobe("test", "name=a\nserver_list=127.0.0.1\nserver_port=" +
                                   text + "\n")
                  .output,
              trying("127.0.0.1", peer.port()) + "Connecting to server: OK.\n" +
                  kAllOk);
  }
  EXPECT_EQ(velprobe("test", "server_port=abc\nserver_list=127.0.0.1")
                .output.substr(0, trying("127.0.0.1", 0).size()),
            trying("127.0.0.1", 0));
}

TEST_F(EndToEnd, ShowsEachLineBeforeItWaits) {
  ScriptedPeer silent({.hear = SIZE_MAX});
  const std::string path = folder_.write(
      "agent.conf", "name=a\nserver_list=127.0.0.1\nserver_port=" +
                        std::to_string(silent.port()));
  Program program({kProgram, path, "test"});
  EXPECT_EQ(program.read_until("...\n"), trying("127.0.0.1", silent.port()));
}

TEST_F(EndToEnd, AsksBeforeItCreatesAFile) {
  const std::string path = folder_.path("none.conf");
  const std::string question = "The configuration file " + path +
                               " does not seem to exist, create one? (y/n) ";
  const struct {
    const char* input;
    std::string output;
    int status;
  } rows[] = {
      {"", "Error from input_line: fgets returned error\n", 1},
      {"n\n",
       "Could not open configuration file " + path +
           ": No such file or directory\n",
       1},
      {"Y\n",
       "Could not open configuration file " + path +
           ": No such file or directory\n",
       1},
      {"yes\n", kNobody.substr(1), 0},
  };
  for (const auto& row : rows) {
    const Finished result = run({kProgram, path, "test"}, {.input = row.input});
    EXPECT_EQ(result.output, question + row.output);
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(folder_.read("none.conf"), std::nullopt);
  }
}

class Configure : public EndToEnd {
 protected:
  std::string configured(const std::string& list) {
    return "This Veltra agent is already configured to check in to the Veltra "
           "server:\n\"" +
           list + "\", do you want to scan for the Veltra server anyway? ";
  }
  const std::string settings_ = "Found the following working settings:\n";
  const std::string question_ =
      "Do you want to update the configuration file of this Veltra agent\n"
      "with the above information? (y/N) ";

  std::string offer(const std::string& server, const std::string& name,
                    const std::string& domain) {
    return "\nVeltra server name: \"" + server + "\"\nVeltra agent name: \"" +
           name + "\"\nVeltra agent domain: \"" + domain + "\"\n\n" + question_;
  }
};

TEST_F(Configure, RewritesTheFileAfterAYes) {
  ScriptedPeer accepting({.answer = kAccept});
  const std::string port = std::to_string(accepting.port());
  const std::string before =
      "# mine\r\n server_list = 127.0.0.2,127.0.0.1\r\nserver_port=" + port +
      "\nother=1\n";
  const Finished result = velprobe("configure", before, {.input = "n\nyes\n"});
  const std::string peer = trying("127.0.0.1", accepting.port());
  const std::string address =
      "Agent name not specified in " + path_ +
      ".\nWill use IP address as agent name \"127.0.0.1\"\n";
  EXPECT_EQ(result.output,
            configured("127.0.0.2,127.0.0.1") + "(y/N) \n" +
                trying("127.0.0.2", accepting.port()) +
                "Error connecting: Connection refused\n" + peer + address +
                "Connecting to server: OK.\n\n" + settings_ +
                offer("127.0.0.1", "127.0.0.1", ".") + "Updating \"" + path_ +
                "\" ...\nConfiguration succesfully updated.\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(folder_.read("agent.conf"),
            "# mine\r\n server_list = 127.0.0.1\r\nserver_port=" + port +
                "\nother=1\ndomain=.\nname=127.0.0.1\n");
  EXPECT_EQ(folder_.read("agent.conf.bak"), before);
  EXPECT_EQ(folder_.read("agent.conf.tmp"), std::nullopt);
}

TEST_F(Configure, LeavesTheFileWithoutAYes) {
  ScriptedPeer refusing({.answer = refusal("no")});
  const std::string before =
      "name=a\ndomain=d\nserver_list=127.0.0.1\nserver_port=" +
      std::to_string(refusing.port()) + "\n";
  const std::string until_question =
      configured("127.0.0.1") + "(y/N) \n" +
      trying("127.0.0.1", refusing.port()) +
      "Veltra Server rejected us: no\n\n"
      "Found the following settings, but it appears this agent is not \n"
      "yet configured on the Veltra Server.\n" +
      kAdvice + offer("127.0.0.1", "a", "d");
  const struct {
    const char* input;
    const char* more;
    int status;
  } rows[] = {
      {"\nY\n", "", 0},
      // The rest of a long answer is the next one.
      {"no, thankyou\n", "", 0},
      {"n\n", "fgets returned error", 1},
  };
  for (const auto& row : rows) {
    const Finished result = velprobe("configure", before, {.input = row.input});
    EXPECT_EQ(result.output, until_question + row.more);
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(folder_.read("agent.conf"), before);
  }
  const Finished result =
      velprobe("configure", before, {.input = "n234567yes\n"});
  EXPECT_NE(result.output.find("succesfully updated"), std::string::npos);
}

TEST_F(Configure, ReportsARewriteThatFails) {
  ScriptedPeer accepting({.answer = kAccept});
  const std::string before =
      "name=a\nserver_list=127.0.0.1\nname=b\nserver_port=" +
      std::to_string(accepting.port()) + "\n";
  const Finished result = velprobe("configure", before, {.input = "n\ny\n"});
  EXPECT_NE(result.output.find("...\nError: No value supplied for key name\n"),
            std::string::npos)
      << result.output;
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(folder_.read("agent.conf"), before);
}

TEST_F(EndToEnd, KeepsATerminalFromBeingDriven) {
  const std::string reason = "\033[2J\r\nConnecting to server: OK.\xC2\x9B";
  ScriptedPeer peer({.answer = refusal(reason)});
  EXPECT_NE(test_against(peer).output.find("rejected us: " + reason + "\n"),
            std::string::npos);
  const std::string shown = test_against(peer, {.on_terminal = true}).output;
  EXPECT_NE(shown.find("rejected us: ?[2J??Connecting to server: OK.??\r\n"),
            std::string::npos)
      << shown;
}

TEST_F(EndToEnd, GoesOnWithoutADescriptorForTheSocket) {
  const auto hoard = [] {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 3; i < 1100; ++i) dup2(0, i);
  };
  const std::string failed = "Error creating socket: Too many open files\n";
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 1200) GTEST_SKIP() << "needs 1,200 descriptors";
  EXPECT_EQ(velprobe("test", "name=a\nserver_list=127.0.0.1,127.0.0.1",
                     {.prepare = hoard})
                .output,
            trying("127.0.0.1", 3241) + failed + trying("127.0.0.1", 3241) +
                failed + kNobody);
}

TEST_F(EndToEnd, WorksWithClosedStandardStreams) {
  ScriptedPeer peer({.answer = kAccept});
  for (int descriptor : {0, 1, 2}) {
    const Finished result =
        test_against(peer, {.prepare = [=] { close(descriptor); }});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.empty(), descriptor == 1);
  }
}

}  // namespace
}  // namespace velprobe
