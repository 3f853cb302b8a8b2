// Threads share nothing but what is constant: each has its own streams, texts,
// limits and look-ups. To be run under the thread sanitizer as well.
#include <gtest/gtest.h>

#include <barrier>
#include <string>
#include <thread>

#include "net/resolver.h"
#include "net/tcp.h"
#include "net/udp.h"
#include "probe/check_in_probe.h"
#include "protocol/messages.h"
#include "support/bytes.h"
#include "support/scripted_peer.h"
#include "support/streams.h"

namespace velprobe {
namespace {

// Everything that keeps something between two calls, once around; `own` makes
// what it keeps recognisable.
void use_the_library(std::uint8_t own, std::barrier<>& together) {
  const std::string name = "agent" + std::to_string(own);
  ScriptedPeer peer({.answer = bytes_of("63 80 04 02 6E 6F 00 00")});
  set_socket_timeout(own);
  for (int round = 0; round < 50; ++round) {
    together.arrive_and_wait();
    const char* text = format_error_text("%s", name.c_str());
    const char* dotted = address_text({own, own, own, own});
    const ErrorText unsent = udp_send(-own, {}, 0, "", 0);
    together.arrive_and_wait();
    EXPECT_EQ(name, text);
    EXPECT_EQ(own, std::stoi(dotted));
    EXPECT_STREQ("UDP send failed (Bad file descriptor)", unsent.c_str());

    BerStreamPtr stream = stream_of();
    server_name_port sent, received;
    sent.name = copy_text(name);
    sent.port = own;
    EXPECT_FALSE(write_server_name_port(*stream, sent));
    EXPECT_FALSE(read_server_name_port(*stream, received, 0));
    EXPECT_EQ(name, received.name.get());

    ProbeResult result;
    const ErrorText refusal = probe_server(
        "127.0.0.1", peer.port(), {.agent_name = name.c_str()}, result);
    EXPECT_STREQ("Veltra Server rejected us: no", refusal.c_str());
    Ipv4Address address;
    EXPECT_EQ("", text_of(resolve_host("localhost", address)));
    const char* host = nullptr;
    EXPECT_TRUE(reverse_resolve({127, 0, 0, 1}, &host));
  }
}

TEST(Threads, HaveTheirOwnStreamsTextsAndLimits) {
  std::barrier together(2);
  std::thread other([&] { use_the_library(9, together); });
  use_the_library(7, together);
  other.join();
}

}  // namespace
}  // namespace velprobe
