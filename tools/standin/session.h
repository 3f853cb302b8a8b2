// One session of velstandin with one client.
#ifndef VELPROBE_STANDIN_SESSION_H_
#define VELPROBE_STANDIN_SESSION_H_

#include <cstdint>
#include <span>

#include "net/address.h"
#include "probe/check_in_probe.h"
#include "protocol/ber_stream.h"
#include "util/error_text.h"
#include "util/owners.h"

namespace velprobe {

// Authentication is one kind of server authentication element.
struct Authentication {
  const char* name;
  ErrorText (*write)(BerStream& stream);
};

// find_authentication gives the kind of that name, or null. The first of all
// is "private-key", then "password" and "none".
const Authentication* find_authentication(const char* name);

// AnswerPolicy says what clients are answered.
struct AnswerPolicy {
  std::span<const char* const> nodes;  // accepted names; empty accepts all
  const char* reason = "This agent is not expected here";
  std::uint16_t version = kProtocolVersion;
  const Authentication* authentication = find_authentication("private-key");
};

struct Client {
  FileDescriptor socket;
  Ipv4Address address{};
  std::uint16_t port = 0;
};

// serve_session reads the client's request, answers it, waits for the
// acknowledgement and prints one line about all of that. It takes at most
// kSessionSeconds, whatever the client does. watch_signals comes first.
void serve_session(Client client, const AnswerPolicy& policy);

}  // namespace velprobe

#endif  // VELPROBE_STANDIN_SESSION_H_
