// What one probe found: a row of the result.
#ifndef VELPROBE_CHECK_RESULT_H_
#define VELPROBE_CHECK_RESULT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "probe/check_in_probe.h"

namespace velprobe::check {

// Result sorts the outcomes by what somebody would do about them.
enum class Result {
  kAccepted,
  kRefused,       // speaks the protocol, does not want this agent
  kIncompatible,  // speaks another version, authentication or protocol
  kUnreachable,   // no connection, or this host could not ask
  kUnresolved,    // no IPv4 address for the name
  kTimeout,       // no whole answer in time, or not asked in time
  kDamaged,       // the answer broke off or is no message
};
inline constexpr std::size_t kNumResults = 7;

inline constexpr Result kAllResults[kNumResults] = {
    Result::kAccepted,    Result::kRefused,    Result::kIncompatible,
    Result::kUnreachable, Result::kUnresolved, Result::kTimeout,
    Result::kDamaged};

// Source tells how a server came into the run.
enum class Source { kConfig, kArgument, kScan };

// result_name and source_name give the words of every output format.
const char* result_name(Result result);
const char* source_name(Source source);

// result_of sorts what the probe tells.
Result result_of(ProbeFailure failure);

// Advice is the next step for texts of a result that hold a phrase, as the
// troubleshooting page gives it.
struct Advice {
  Result result;
  const char* phrase;  // "" stands for every text
  const char* step;
};

// all_advice gives the whole table; of several that fit, the first counts.
std::span<const Advice> all_advice();

// advice_for gives the step for a row's text; empty for an accepted one.
std::string_view advice_for(Result result, std::string_view text);

// The texts of velcheck's own, for what the probe never got to.
inline constexpr char kNotAsked[] = "Not asked: out of time";
inline constexpr char kLookUpTimedOut[] = "Look-up timed out";
inline constexpr char kNoAnswerInTime[] = "No answer in time";
inline constexpr char kInterrupted[] = "Interrupted before an answer";
inline constexpr char kNoThread[] = "The system gives no thread";
inline constexpr char kOnlyIpv6[] = "it has IPv6 addresses only";

// Row is one agent at one address of one server.
struct Row {
  // As announced; without a name of its own the agent goes by the address of
  // the connection. Empty when there was no connection to take it from.
  std::string agent;
  bool is_named = true;  // agent is a name of its own
  std::string domain;
  std::string host;  // that asked
  std::string server;
  std::string address;  // dotted decimal; empty: the name did not resolve
  std::uint16_t port = 0;
  Source source = Source::kArgument;
  Result result = Result::kTimeout;
  std::string text;  // the probe's own; empty for an accepted one
  std::optional<std::uint32_t> offered_version;
  double seconds = 0;                          // of look-up and conversation
  std::chrono::system_clock::time_point time;  // of the result
  bool is_outdated = false;  // a later one says something else about the pair
};

// agent_name is how to speak of the agent of a row: one without a name of its
// own goes by the host that asked. server_name has the port unless it is the
// usual one; pair_name has both. As they came, so escape them.
std::string agent_name(const Row& row);
std::string server_name(const Row& row);
std::string pair_name(const Row& row);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_RESULT_H_
