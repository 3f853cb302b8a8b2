#include "result.h"

namespace velprobe::check {
namespace {

// Advice is the next step for texts that hold a phrase. The rows that come
// first count first; a null phrase stands for every text of that result.
struct Advice {
  Result result;
  const char* phrase;
  const char* step;
};

constexpr Advice kAdvice[] = {
    {Result::kRefused, nullptr,
     "Mostly a missing Node: add one with the agent's name on the server, then "
     "test again."},
    {Result::kIncompatible, "does not support private key authentication",
     "Upgrade the server."},
    {Result::kIncompatible, "does not support our protocol version",
     "Upgrade the server, or downgrade the agent."},
    {Result::kIncompatible, nullptr,
     "Check the port: another service may own it."},
    {Result::kUnresolved, kOnlyIpv6,
     "The agent protocol needs IPv4: use another name or an IPv4 address."},
    {Result::kUnresolved, "Host name not found",
     "Check the spelling in `server_list`; blanks around commas belong to the "
     "name."},
    {Result::kUnresolved, "Temporary error from name server",
     "Check the network and `/etc/resolv.conf`, then try again."},
    {Result::kUnresolved, "Unrecoverable error from name server",
     "Ask whoever runs it."},
    {Result::kUnresolved, "Name server returned no address",
     "Use another name or an IPv4 address."},
    {Result::kUnresolved, "No addresses found when resolving",
     "Use another name or an IPv4 address."},
    {Result::kUnresolved, nullptr, "Try an IPv4 address."},
    {Result::kTimeout, kNotAsked,
     "Give the run more time (`--timeout`) or more at once (`--jobs`)."},
    {Result::kTimeout, kLookUpTimedOut,
     "Check the network and `/etc/resolv.conf`, or use an IPv4 address."},
    {Result::kTimeout, kInterrupted, "Run it again."},
    {Result::kTimeout, "Connection timed out", "A firewall drops the packets."},
    {Result::kTimeout, nullptr, "Another service may own that port."},
    {Result::kUnreachable, "Error connecting",
     "Check `server_port`, the server and the firewalls. `velstandin` on the "
     "server's host shows whether the way is free."},
    {Result::kUnreachable, nullptr, "See that text."},
    {Result::kDamaged, "Connection reset by peer", "Look at the server's log."},
    {Result::kDamaged, "Peer closed connection unexpectedly",
     "Look at the server's log; another service may own that port."},
    {Result::kDamaged, "Other end closed connection",
     "Look at the server's log; another service may own that port."},
    {Result::kDamaged, nullptr,
     "Check the port, then report it with a capture of the session."},
};

}  // namespace

const char* result_name(Result result) {
  static constexpr const char* kNames[kNumResults] = {
      "accepted",   "refused", "incompatible", "unreachable",
      "unresolved", "timeout", "damaged"};
  return kNames[static_cast<std::size_t>(result)];
}

const char* source_name(Source source) {
  static constexpr const char* kNames[] = {"config", "argument", "scan"};
  return kNames[static_cast<std::size_t>(source)];
}

Result result_of(ProbeFailure failure) {
  switch (failure) {
    case ProbeFailure::kNone:
      return Result::kAccepted;
    case ProbeFailure::kRefused:
      return Result::kRefused;
    case ProbeFailure::kUnresolved:
      return Result::kUnresolved;
    case ProbeFailure::kConnect:
    case ProbeFailure::kSystem:
      return Result::kUnreachable;
    case ProbeFailure::kTimeout:
      return Result::kTimeout;
    case ProbeFailure::kClosed:
    case ProbeFailure::kDamaged:
      return Result::kDamaged;
    case ProbeFailure::kProtocol:
    case ProbeFailure::kVersion:
    case ProbeFailure::kAuthentication:
      return Result::kIncompatible;
  }
  return Result::kUnreachable;
}

std::string_view advice_for(Result result, std::string_view text) {
  for (const Advice& advice : kAdvice) {
    if (advice.result != result) continue;
    if (advice.phrase == nullptr || text.find(advice.phrase) != text.npos)
      return advice.step;
  }
  return {};
}

}  // namespace velprobe::check
