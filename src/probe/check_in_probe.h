// The check-in probe: would this server accept this agent now?
#ifndef VELPROBE_PROBE_CHECK_IN_PROBE_H_
#define VELPROBE_PROBE_CHECK_IN_PROBE_H_

#include <cstdint>

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

// probe_server opens the agent protocol to one server for real: resolve,
// connect, announce version and identity, read the answer, acknowledge, hang
// up. It goes no further than the negotiation.
//
// server is a host name or dotted address, port in host order. agent_name and
// agent_domain may be null or empty; without a name the agent calls itself by
// the local address of the connection, and out_address_text then receives a
// copy of that text (empty when the system did not tell). Either out place may
// be null; they start as absent and kNoAnswer.
//
// No text exactly when the status is kAccepted. "Veltra Server rejected us: %s"
// comes with kRefused. With kNoAnswer come the texts of resolver, stream and
// messages unchanged, and
//   "Couldn't open connection to server \"%s\""
//   "Veltra Server using incompatible protocol"
//   "Veltra Server does not support private key authentication.  Upgrade the
//   Veltra Server."
//   "Veltra Server does not support our protocol version. Upgrade the Veltra
//   Server, or downgrade the Veltra Agent."
//   "Out of memory"
//
// Blocks for up to 600 seconds at the connect and at each wait for data.
ErrorText probe_server(const char* server, std::uint16_t port,
                       const char* agent_name, const char* agent_domain,
                       Text* out_address_text, ProbeStatus* out_status);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROBE_CHECK_IN_PROBE_H_
