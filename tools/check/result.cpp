#include "result.h"

#include "joined.h"

namespace velprobe::check {
namespace {

constexpr Advice kAdvice[] = {
    {Result::kRefused, "Veltra Server rejected us",
     "Mostly a Node is missing: configure one with the agent's name on the "
     "server."},
    {Result::kIncompatible, "does not support private key authentication",
     "Upgrade the server."},
    {Result::kIncompatible, "does not support our protocol version",
     "Upgrade the server, or downgrade the agent."},
    {Result::kIncompatible, "using incompatible protocol",
     "Check the port: another service may own it."},
    {Result::kUnresolved, kOnlyIpv6,
     "Give the server an IPv4 address, or name another one."},
    {Result::kUnresolved, "Host name not found",
     "Check the spelling in server_list: blanks around a comma belong to the "
     "name."},
    {Result::kUnresolved, "Temporary error from name server",
     "Check the network and /etc/resolv.conf, then try again."},
    {Result::kUnresolved, "Unrecoverable error from name server",
     "Ask whoever runs it."},
    {Result::kUnresolved, "Name server returned no address",
     "Use another name or an IPv4 address."},
    {Result::kUnresolved, "No addresses found when resolving",
     "Use another name or an IPv4 address."},
    {Result::kUnresolved, "Unknown error", "Try an IPv4 address."},
    {Result::kUnresolved, kNoThread,
     "Raise the limit on processes or on memory."},
    {Result::kTimeout, kNotAsked,
     "Give the run more time (--timeout), or ask more at once (--jobs)."},
    {Result::kTimeout, kLookUpTimedOut,
     "Check the network and /etc/resolv.conf, or use an IPv4 address."},
    {Result::kTimeout, kInterrupted, "Run it again."},
    {Result::kTimeout, kNoAnswerInTime, "Run it again with more time."},
    {Result::kTimeout, "Connection timed out",
     "Mostly a firewall drops the packets."},
    {Result::kTimeout, "Timeout in socket_recv()",
     "Another service may own that port."},
    {Result::kTimeout, "Timeout in socket_send()",
     "Another service may own that port."},
    {Result::kUnreachable, "Connection refused",
     "Check server_port and whether the server runs."},
    {Result::kUnreachable, "No route to host", "Check routing and firewalls."},
    {Result::kUnreachable, "Network is unreachable",
     "This host has no route to that address, often because its network is not "
     "up yet."},
    {Result::kUnreachable, "Error connecting",
     "velstandin on the server's host shows whether the way there is free."},
    {Result::kUnreachable, "Error creating socket",
     "The system gives no socket: too many open files, or a sandbox."},
    {Result::kUnreachable, "data out of range in write_string",
     "This one comes from your own side: name in the file is longer than 256 "
     "bytes."},
    {Result::kUnreachable, "Out of memory",
     "The host has no memory left, or a limit (ulimit -v, a container) is too "
     "tight."},
    {Result::kUnreachable, kNoThread,
     "Raise the limit on processes or on memory."},
    {Result::kUnreachable, "", "Try again."},
    {Result::kDamaged, "Connection reset by peer",
     "The server broke off; look at its log."},
    {Result::kDamaged, "Peer closed connection unexpectedly",
     "Look at its log; another service may own that port."},
    {Result::kDamaged, "Other end closed connection",
     "Look at its log; another service may own that port."},
    {Result::kDamaged, "",
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

std::span<const Advice> all_advice() {
  return kAdvice;
}

std::string_view advice_for(Result result, std::string_view text) {
  for (const Advice& advice : kAdvice) {
    if (advice.result == result && text.find(advice.phrase) != text.npos) {
      return advice.step;
    }
  }
  return {};
}

std::string agent_name(const Row& row) {
  if (row.is_named) return row.agent;
  if (!row.host.empty()) return row.host;
  return row.agent.empty() ? "this agent" : row.agent;
}

std::string server_name(const Row& row) {
  if (row.port == kDefaultServerPort) return row.server;
  return joined({row.server, ":", std::to_string(row.port)});
}

std::string pair_name(const Row& row) {
  return joined({agent_name(row), " at ", server_name(row)});
}

}  // namespace velprobe::check
