// The check-in probe: would this server accept this agent now?
#ifndef VELPROBE_PROBE_CHECK_IN_PROBE_H_
#define VELPROBE_PROBE_CHECK_IN_PROBE_H_

#include <cstdint>

#include "../net/address.h"
#include "../util/deadline.h"
#include "../util/error_text.h"
#include "../util/text.h"

#pragma GCC visibility push(default)
namespace velprobe {

// The protocol version that this side speaks: major 2, minor 2.
inline constexpr std::int32_t kProtocolVersion = 0x0202;

// Where servers listen, for TCP and for discovery, unless told otherwise.
inline constexpr std::uint16_t kDefaultServerPort = 3241;

enum class ProbeStatus : std::uint32_t {
  kAccepted = 0,  // compatible, private-key authentication, acknowledged
  kRefused = 1,   // the server speaks the protocol and refuses this agent
  kNoAnswer = 2,  // no usable answer
};

// ProbeFailure is the kind of failure, for programs; the text beside it tells
// people more.
enum class ProbeFailure : std::uint32_t {
  kNone,            // accepted
  kRefused,         // the status of that name
  kUnresolved,      // the name has no address, or none could be asked for
  kConnect,         // no connection: refused, unreachable
  kTimeout,         // a time limit or the deadline, at the connect or later
  kClosed,          // the connection ended before the answer was complete
  kDamaged,         // the answer breaks the rules of its encoding or message
  kProtocol,        // the first message is none that may stand there
  kVersion,         // the offered version's major part is not ours
  kAuthentication,  // no private-key authentication on offer
  kSystem,  // this side: memory, descriptors, an interruption, or a name
            // or domain longer than the protocol carries
};

struct ProbeOptions {
  // Both may be null or empty. Without a name the agent calls itself by the
  // local address of the connection.
  const char* agent_name = nullptr;
  const char* agent_domain = nullptr;
  // Where to connect, if the caller has looked the server up; null: look it up.
  const Ipv4Address* address = nullptr;
  // Bounds connection and conversation, but not the look-up of a name, which
  // nothing bounds.
  Deadline deadline = kNoDeadline;
};

struct ProbeResult {
  ProbeStatus status = ProbeStatus::kNoAnswer;
  ProbeFailure failure = ProbeFailure::kSystem;
  // The local address that stood in for the name, empty when the system did not
  // tell; absent when a name was given or no connection came about.
  Text agent_address_text;
  // The version that the server offered, once it has been read.
  bool has_offer = false;
  std::uint32_t offered_version = 0;
};

// probe_server opens the agent protocol to one server for real: resolve,
// connect, announce version and identity, read the answer, acknowledge, hang
// up. It goes no further than the negotiation.
//
// server is a host name or dotted address, port in host order. out_result is
// overwritten in any case: no option may point into it.
//
// No text exactly when the status is kAccepted.
//   "Veltra Server rejected us: %s": the status is kRefused; with all others it
//   is kNoAnswer
//   the texts of resolve_host, of socket_stream_open and its operations, and of
//   the messages' writers and readers
//   "Couldn't open connection to server \"%s\""
//   "Veltra Server using incompatible protocol"
//   "Veltra Server does not support private key authentication.  Upgrade the
//   Veltra Server."
//   "Veltra Server does not support our protocol version. Upgrade the Veltra
//   Server, or downgrade the Veltra Agent."
//   "Out of memory"
//
// Without a deadline it blocks for up to 600 seconds at the connect and at each
// wait for data.
ErrorText probe_server(const char* server, std::uint16_t port,
                       const ProbeOptions& options, ProbeResult& out_result);

// The same without address and deadline. out_address_text receives
// agent_address_text, out_status the status; either may be null.
ErrorText probe_server(const char* server, std::uint16_t port,
                       const char* agent_name, const char* agent_domain,
                       Text* out_address_text, ProbeStatus* out_status);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROBE_CHECK_IN_PROBE_H_
