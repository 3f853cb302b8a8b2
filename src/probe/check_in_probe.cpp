#include "check_in_probe.h"

#include <array>
#include <cstdio>

#include "../net/resolver.h"
#include "../net/tcp.h"
#include "../protocol/ber_codec.h"
#include "../protocol/ber_stream.h"
#include "../protocol/messages.h"
#include "../protocol/socket_stream.h"

namespace velprobe {
namespace {

using AddressText = std::array<char, 32>;

// The local address of the connection, empty when the system does not tell.
AddressText local_address_text(const BerStream& stream) {
  AddressText text{};
  Ipv4Address address{};
  if (socket_local_address(socket_stream_handle(stream), &address, nullptr)) {
    std::snprintf(text.data(), text.size(), "%d.%d.%d.%d", address[0],
                  address[1], address[2], address[3]);
  }
  return text;
}

// client_wants with the agent's private-key element inside. It leaves with the
// first read of the answer.
ErrorText write_request(BerStream& stream, const char* name,
                        const char* domain) {
  client_wants wants;
  wants.version = kProtocolVersion;
  client_private_key key;
  key.name = copy_text(name);
  if (domain != nullptr) key.domain = copy_text(domain);
  if (!key.name || (domain != nullptr && !key.domain)) return kOutOfMemory;
  key.hasMasterKey = 1;
  key.hasHallmark = 1;
  key.testing = 1;

  if (ErrorText error = write_client_wants(stream, wants)) return error;
  if (ErrorText error = write_client_private_key(stream, key)) return error;
  return write_end_of_contents(stream);
}

// The refusal, whose tag has been read; the status rises to kRefused only once
// it is complete.
ErrorText read_refusal(BerStream& stream, ProbeStatus& status) {
  negotiate_nack nack;
  if (ErrorText error =
          read_negotiate_nack(stream, nack, kTagOf_negotiate_nack))
    return error;
  status = ProbeStatus::kRefused;
  return format_error_text("Veltra Server rejected us: %s", nack.reason.get());
}

// The offer, whose tag has been read. Its version is judged only after the
// whole of it, so that a server without private-key authentication is reported
// as such whatever its version.
ErrorText read_offer(BerStream& stream) {
  server_offers offers;
  if (ErrorText error =
          read_server_offers_incomplete(stream, offers, kTagOf_server_offers))
    return error;
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (tag != kTagOf_server_private_key) {
    return "Veltra Server does not support private key authentication.  "
           "Upgrade the Veltra Server.";
  }
  server_private_key key;
  if (ErrorText error = read_server_private_key(stream, key, tag)) return error;
  if (ErrorText error = skip_to_eol(stream)) return error;
  if (!same_major_version(static_cast<std::uint32_t>(offers.version),
                          kProtocolVersion)) {
    return "Veltra Server does not support our protocol version. Upgrade the "
           "Veltra Server, or downgrade the Veltra Agent.";
  }
  return {};
}

ErrorText negotiate(BerStream& stream, const char* name, const char* domain,
                    ProbeStatus& status) {
  if (ErrorText error = write_request(stream, name, domain)) return error;
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (tag == kTagOf_negotiate_nack) return read_refusal(stream, status);
  if (tag != kTagOf_server_offers)
    return "Veltra Server using incompatible protocol";
  if (ErrorText error = read_offer(stream)) return error;

  if (ErrorText error = write_negotiate_ack(stream)) return error;
  if (ErrorText error = stream.operations.flush(&stream)) return error;
  status = ProbeStatus::kAccepted;
  return {};
}

ErrorText connect_to_server(const char* server, std::uint16_t port,
                            BerStreamPtr& out_stream) {
  Ipv4Address address{};
  if (ErrorText error = resolve_host(server, address)) return error;
  if (ErrorText error =
          socket_stream_open(out_stream, address, port, CONNECT_NONBLOCKING))
    return error;
  if (!out_stream) {
    return format_error_text("Couldn't open connection to server \"%s\"",
                             server);
  }
  return {};
}

// Closing may form texts of its own, over the one that is to be returned.
ErrorText keep_through_close(BerStreamPtr& stream, ErrorText result) {
  if (!result) return result;
  std::array<char, kErrorTextSize> kept;
  copy_bounded(kept.data(), result.c_str(), kept.size());
  stream.reset();
  return format_error_text("%s", kept.data());
}

}  // namespace

ErrorText probe_server(const char* server, std::uint16_t port,
                       const char* agent_name, const char* agent_domain,
                       Text* out_address_text, ProbeStatus* out_status) {
  ProbeStatus own_status;
  ProbeStatus& status = out_status != nullptr ? *out_status : own_status;
  status = ProbeStatus::kNoAnswer;
  if (out_address_text != nullptr) out_address_text->reset();

  BerStreamPtr stream;
  if (ErrorText error = connect_to_server(server, port, stream)) return error;

  AddressText own_address{};
  if (is_absent_or_empty(agent_name)) {
    own_address = local_address_text(*stream);
    agent_name = own_address.data();
    if (out_address_text != nullptr) {
      *out_address_text = copy_text(agent_name);
      if (!*out_address_text) return kOutOfMemory;
    }
  }
  return keep_through_close(
      stream, negotiate(*stream, agent_name, agent_domain, status));
}

}  // namespace velprobe
