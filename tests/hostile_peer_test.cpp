// Servers that mean harm, over real sockets: velprobe ends by itself, in memory
// that a small limit holds, with the text for what it met.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <string>

#include "net/tcp.h"
#include "probe/check_in_probe.h"
#include "support/bytes.h"
#include "support/program.h"
#include "support/scripted_peer.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

const std::string kOffer = bytes_of("61 80 02 02 02 02");
const std::string kKey = bytes_of("A1 80 01 01 01 01 01 01");
const std::string kClosed = "Peer closed connection unexpectedly";
constexpr std::size_t kKibibyte = 1024;

// All that is mapped, the C library's own share included.
constexpr rlim_t kRoom = 5 * 1024 * kKibibyte;

std::string repeated(const std::string& piece) {
  std::string block;
  while (block.size() < 4096) block += piece;
  return block;
}

// limited_test runs velprobe against a peer, in kRoom.
Finished limited_test(const ScriptedPeer& peer) {
  TempFolder folder;
  const auto limit = [] {
    alarm(60);
    if (*VELPROBE_FAULT_SHIM == '\0') return;  // sanitizers map terabytes
    const rlimit both = {kRoom, kRoom};
    setrlimit(RLIMIT_AS, &both);
  };
  return run({VELPROBE_PROGRAM, folder.write("c", peer.config()), "test"},
             {.prepare = limit});
}

TEST(HostilePeer, WearsOutNeitherTimeNorMemory) {
  const struct {
    const char* name;
    std::string answer;
    std::string filler;
    std::string text;
    std::size_t size = 512 * kKibibyte;  // of all the filler
  } rows[] = {
      {"garbage", "", repeated(bytes_of("DE AD BE EF")),
       "Veltra Server using incompatible protocol"},
      {"filler in the offer", kOffer, repeated("\x19"), kClosed},
      {"high tag", bytes_of("1F"), repeated("\xFF"), kClosed},
      {"nested lists", kOffer + kKey, repeated(bytes_of("30 80")), kClosed,
       2100000},  // a million of them
      {"endless key", kOffer + kKey, repeated(bytes_of("01 01 01")), kClosed},
      {"endless refusal", bytes_of("63 80 04 01 61"),
       repeated(bytes_of("04 01 61")), kClosed},
      {"a skipped text of gigabytes",
       kOffer + kKey + bytes_of("04 84 FF FF FF FF"), repeated("a"), kClosed},
      {"a reason of gigabytes", bytes_of("63 80 04 84 FF FF FF FF"),
       repeated("a"),
       "negotiate_nack.reason: data out of range in read_string"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedPeer peer({.answer = row.answer,
                       .filler = row.filler,
                       .filler_times = row.size / row.filler.size()});
    const Finished result = limited_test(peer);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find(" ...\n" + row.text + "\n"), std::string::npos)
        << result.output;
  }
}

// All of these would keep a caller for a minute that has no deadline.
TEST(HostilePeer, EndsAtTheDeadlineWhateverItDoes) {
  const Script scripts[] = {
      {.stay = true},
      {.filler = "\x19", .filler_times = 6000, .pause = 10'000},
      {.filler = std::string(1 << 16, '\x19'), .filler_times = 1 << 20},
      {.answer = kOffer + kKey,
       .filler = bytes_of("30 80"),
       .filler_times = 6000,
       .pause = 10'000},
  };
  for (const Script& script : scripts) {
    ScriptedPeer peer(script);
    ProbeResult result;
    const ErrorText error =
        probe_server("127.0.0.1", peer.port(),
                     {.agent_name = "a",
                      .deadline = std::chrono::steady_clock::now() +
                                  std::chrono::seconds(1)},
                     result);
    EXPECT_EQ(error.c_str(),
              std::string("Error receiving data: Timeout in socket_recv()"));
    EXPECT_EQ(result.failure, ProbeFailure::kTimeout);
  }
}

// The numbers are published.
static_assert(static_cast<int>(ProbeStatus::kAccepted) == 0 &&
              static_cast<int>(ProbeStatus::kRefused) == 1 &&
              static_cast<int>(ProbeStatus::kNoAnswer) == 2 &&
              static_cast<int>(ProbeFailure::kNone) == 0 &&
              static_cast<int>(ProbeFailure::kSystem) == 10);

TEST(HostilePeer, EveryEndHasItsKind) {
  const std::string version_three = bytes_of("61 80 02 02 03 00");
  const std::string end = bytes_of("00 00 00 00");
  const struct {
    const char* name;
    ProbeFailure failure;
    Script script;
    bool has_offer = false;
    std::string agent = "a";
  } rows[] = {
      {"accepted", ProbeFailure::kNone, {.answer = kOffer + kKey + end}, true},
      {"refused",
       ProbeFailure::kRefused,
       {.answer = bytes_of("63 80 04 00 00 00")}},
      {"offer and the end", ProbeFailure::kClosed, {.answer = kOffer}, true},
      {"reset",
       ProbeFailure::kClosed,
       {.answer = bytes_of("63"), .reset = true}},
      {"length of gigabytes",
       ProbeFailure::kDamaged,
       {.answer = bytes_of("63 80 04 84 FF FF FF FF")}},
      {"length missing its end",
       ProbeFailure::kDamaged,
       {.answer = bytes_of("61 02 02 02")}},
      {"foreign tag", ProbeFailure::kProtocol, {.answer = bytes_of("64 80")}},
      {"other authentication",
       ProbeFailure::kAuthentication,
       {.answer = version_three + bytes_of("A0 80 00 00 00 00")},
       true},
      {"other version",
       ProbeFailure::kVersion,
       {.answer = version_three + kKey + end},
       true},
      {"agent's name too long",
       ProbeFailure::kSystem,
       {},
       false,
       std::string(257, 'a')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedPeer peer(row.script);
    const Ipv4Address address{127, 0, 0, 1};
    ProbeResult result;
    const ErrorText error = probe_server(
        "", peer.port(), {.agent_name = row.agent.c_str(), .address = &address},
        result);
    EXPECT_EQ(row.failure, result.failure) << error.c_str();
    EXPECT_EQ(row.has_offer, result.has_offer);
    EXPECT_EQ(row.failure == ProbeFailure::kNone, !error);
  }
  ProbeResult result;
  EXPECT_TRUE(probe_server("127.0.0.1", 1, {}, result));
  EXPECT_EQ(ProbeFailure::kConnect, result.failure);
  EXPECT_TRUE(probe_server("127.0.0.1", 1, {.deadline = {}}, result));
  EXPECT_EQ(ProbeFailure::kTimeout, result.failure);
  EXPECT_TRUE(probe_server("no such name", 1, {}, result));
  EXPECT_EQ(ProbeFailure::kUnresolved, result.failure);
}

}  // namespace
}  // namespace velprobe
