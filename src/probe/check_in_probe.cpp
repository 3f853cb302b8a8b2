#include "check_in_probe.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

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
  if (!key.name || (domain != nullptr && !key.domain)) return kNoMemory;
  key.hasMasterKey = 1;
  key.hasHallmark = 1;
  key.testing = 1;

  if (ErrorText error = write_client_wants(stream, wants)) return error;
  if (ErrorText error = write_client_private_key(stream, key)) return error;
  return write_end_of_contents(stream);
}

// verdict ends the story: the text, and what kind of failure it stands for.
ErrorText verdict(ProbeResult& result, ProbeFailure failure, ErrorText text) {
  result.failure = failure;
  return text;
}

// The refusal, whose tag has been read; the status rises to kRefused only once
// it is complete.
ErrorText read_refusal(BerStream& stream, ProbeResult& result) {
  negotiate_nack nack;
  if (ErrorText error =
          read_negotiate_nack(stream, nack, kTagOf_negotiate_nack)) {
    return error;
  }
  result.status = ProbeStatus::kRefused;
  return verdict(
      result, ProbeFailure::kRefused,
      format_error_text("Veltra Server rejected us: %s", nack.reason.get()));
}

// The offer, whose tag has been read. Its version is judged only after the
// whole of it, so that a server without private-key authentication is reported
// as such whatever its version.
ErrorText read_offer(BerStream& stream, ProbeResult& result) {
  server_offers offers;
  if (ErrorText error =
          read_server_offers_incomplete(stream, offers, kTagOf_server_offers)) {
    return error;
  }
  result.has_offer = true;
  result.offered_version = static_cast<std::uint32_t>(offers.version);

  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (tag != kTagOf_server_private_key) {
    return verdict(
        result, ProbeFailure::kAuthentication,
        "Veltra Server does not support private key authentication.  "
        "Upgrade the Veltra Server.");
  }
  server_private_key key;
  if (ErrorText error = read_server_private_key(stream, key, tag)) return error;
  if (ErrorText error = skip_to_eol(stream)) return error;
  if (!same_major_version(result.offered_version, kProtocolVersion)) {
    return verdict(
        result, ProbeFailure::kVersion,
        "Veltra Server does not support our protocol version. Upgrade the "
        "Veltra Server, or downgrade the Veltra Agent.");
  }
  return {};
}

ErrorText read_answer(BerStream& stream, ProbeResult& result) {
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (tag == kTagOf_negotiate_nack) return read_refusal(stream, result);
  if (tag == kTagOf_server_offers) return read_offer(stream, result);
  return verdict(result, ProbeFailure::kProtocol,
                 "Veltra Server using incompatible protocol");
}

ErrorText acknowledge(BerStream& stream) {
  if (ErrorText error = write_negotiate_ack(stream)) return error;
  return stream.operations.flush(&stream);
}

// Each step of the story says beforehand what its failure would mean;
// failure_of corrects that where the error's number knows better.
ErrorText negotiate(BerStream& stream, const char* name, const char* domain,
                    ProbeResult& result) {
  result.failure = ProbeFailure::kSystem;
  if (ErrorText error = write_request(stream, name, domain)) return error;
  result.failure = ProbeFailure::kDamaged;
  if (ErrorText error = read_answer(stream, result)) return error;
  result.failure = ProbeFailure::kClosed;
  if (ErrorText error = acknowledge(stream)) return error;
  result.failure = ProbeFailure::kNone;
  result.status = ProbeStatus::kAccepted;
  return {};
}

// Closing may form texts of its own, over the one that is to be returned.
ErrorText keep_through_close(BerStreamPtr& stream, ErrorText result) {
  if (!result) return result;
  std::array<char, kErrorTextSize> kept;
  copy_bounded(kept.data(), result.c_str(), kept.size());
  stream.reset();
  return result.wrapped(format_error_text("%s", kept.data()));
}

ErrorText connect_to_server(const char* server, std::uint16_t port,
                            const ProbeOptions& options, ProbeResult& result,
                            BerStreamPtr& out_stream) {
  result.failure = ProbeFailure::kUnresolved;
  Ipv4Address address{};
  if (options.address != nullptr) {
    address = *options.address;
  } else if (ErrorText error = resolve_host(server, address)) {
    return error;
  }
  result.failure = ProbeFailure::kConnect;
  if (ErrorText error = socket_stream_open(
          out_stream, address, port, CONNECT_NONBLOCKING, options.deadline)) {
    return error;
  }
  if (!out_stream) {
    return format_error_text("Couldn't open connection to server \"%s\"",
                             server);
  }
  return {};
}

ErrorText run_probe(const char* server, std::uint16_t port,
                    const ProbeOptions& options, ProbeResult& result) {
  BerStreamPtr stream;
  if (ErrorText error =
          connect_to_server(server, port, options, result, stream)) {
    return error;
  }

  const char* agent_name = options.agent_name;
  if (is_absent_or_empty(agent_name)) {
    const AddressText own_address = local_address_text(*stream);
    result.agent_address_text = copy_text(own_address.data());
    if (!result.agent_address_text) return kNoMemory;
    agent_name = result.agent_address_text.get();
  }
  return keep_through_close(
      stream, negotiate(*stream, agent_name, options.agent_domain, result));
}

// What the system's number tells about a failure, whatever the step. A number
// that is not here means that the connection broke, or never came about.
ProbeFailure failure_of(int error_number, ProbeFailure expected) {
  switch (error_number) {
    case 0:
      return expected;
    case ETIMEDOUT:
      return ProbeFailure::kTimeout;
    case EINTR:
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return ProbeFailure::kSystem;
    default:
      return expected == ProbeFailure::kConnect ? expected
                                                : ProbeFailure::kClosed;
  }
}

}  // namespace

ErrorText probe_server(const char* server, std::uint16_t port,
                       const ProbeOptions& options, ProbeResult& out_result) {
  out_result = {};
  const ErrorText error = run_probe(server, port, options, out_result);
  out_result.failure = failure_of(error.error_number(), out_result.failure);
  return error;
}

ErrorText probe_server(const char* server, std::uint16_t port,
                       const char* agent_name, const char* agent_domain,
                       Text* out_address_text, ProbeStatus* out_status) {
  const ProbeOptions options = {.agent_name = agent_name,
                                .agent_domain = agent_domain};
  ProbeResult result;
  const ErrorText error = probe_server(server, port, options, result);
  if (out_address_text != nullptr) {
    *out_address_text = std::move(result.agent_address_text);
  }
  if (out_status != nullptr) *out_status = result.status;
  return error;
}

}  // namespace velprobe
