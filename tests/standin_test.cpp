// velprobe and velstandin, the built programs, with each other.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "net/tcp.h"
#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

using Words = std::vector<std::string>;

class Standin : public testing::Test {
 protected:
  Server& start(const Words& options) { return server_.emplace(options); }
  std::string probe(const std::string& lines, const char* operation = "test") {
    const std::string path =
        folder_.write("agent.conf", lines + "\n" + server_->port_line());
    return run({VELPROBE_PROGRAM, path, operation}, {.input = "y\n"}).output;
  }

  TempFolder folder_;
  std::optional<Server> server_;
};

// The line about the one session, without the peer in front; nothing when
// there was none.
std::string session_line(const std::string& output) {
  const std::size_t line = output.find('\n') + 1;
  const std::size_t peer_end = output.find(": ", line);
  return peer_end == output.npos ? "" : output.substr(peer_end + 2);
}

TEST_F(Standin, AnswersAsItIsTold) {
  const std::string asked = "version 0x0202, name \"a\", domain \"d\"; ";
  const struct {
    Words options;
    std::string verdict;
    std::string session;
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
       "Veltra Server does not support private key authentication.  Upgrade "
       "the "
       "Veltra Server.",
       "offered version 0x0202, password; hung up without acknowledging"},
  };
  for (const auto& row : rows) {
    Words options = row.options;
    options.insert(options.end(), {"--sessions", "1", "--no-discovery"});
    Server& server = start(options);
    const std::string shown = probe("name=a\ndomain=d\nserver_list=127.0.0.1");
    EXPECT_NE(shown.find("...\n" + row.verdict + "\n"), std::string::npos)
        << shown;
    EXPECT_EQ(session_line(server.output()), asked + row.session + "\n");
    EXPECT_EQ(server.wait(), 0);
  }
}

TEST_F(Standin, KeepsOneLineOneLine) {
  Server& server = start({"--sessions", "1"});
  probe("name=a\033[2J\rb\nserver_list=127.0.0.1");
  EXPECT_NE(server.output().find("name \"a?[2J?b\""), std::string::npos);
}

TEST_F(Standin, EndsAtASignalEvenInASession) {
  Server& idle = start({});
  idle.kill(SIGINT);
  EXPECT_EQ(session_line(idle.output()), "");
  EXPECT_EQ(idle.wait(), 0);
  Server& busy = start({});
  std::int32_t client = -1;
  const auto port = static_cast<std::uint16_t>(busy.port);
  ASSERT_FALSE(socket_connect({127, 0, 0, 1}, port, client, 0));
  ASSERT_FALSE(socket_send(client, "\x60", 1));
  usleep(50000);
  busy.kill(SIGTERM);
  EXPECT_EQ(session_line(busy.output()),
            "no request; not answered; cut off: stopping\n");
  EXPECT_EQ(busy.wait(), 0);
  EXPECT_FALSE(socket_close(client));
}

TEST_F(Standin, RefusesBadUsage) {
  const Words rows[] = {
      {"--port", "65536"},
      {"--listen", "localhost"},
      {"--offer-version", "-1"},
      {"--auth", "key"},
      {"--sessions", "0"},
      {"--node", ""},
      {"--reason"},
      {"stray"},
      {"--reason", std::string(1025, 'r')},
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
    EXPECT_NE(result.output.find("velstandin"), std::string::npos);
  }
}

TEST_F(Standin, IsFoundByAScan) {
  if (!enter_own_network()) GTEST_SKIP() << "no network of one's own";
  Server& server = start({"--sessions", "1"});
  const std::string shown = probe("name=a\nserver_list=localhost", "configure");
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
