#include "discovery_responder.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <span>
#include <utility>

#include "net/system_socket.h"
#include "net/udp.h"
#include "probe/discovery_datagram.h"

namespace velprobe::standin {

namespace {

bool is_loopback(const Ipv4Address& address) {
  return address[0] == 127;
}

// send_answer names the source address in the datagram's control data
// (IP_PKTINFO), since a socket that is to hear broadcasts has none of its own.
// The address 0.0.0.0 leaves the choice to the system.
void send_answer(const Responder& responder, const Ipv4Address& from,
                 const UdpPeer& to,
                 DiscoveryDatagram answer = build_discovery_answer()) {
  sockaddr_in peer = to_sockaddr(to.address, to.port);
  iovec content{answer.data(), answer.size()};
  in_pktinfo source{};
  source.ipi_spec_dst = to_sockaddr(from, 0).sin_addr;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof source)> control{};

  msghdr message{};
  message.msg_name = &peer;
  message.msg_namelen = sizeof peer;
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_IP;
  header->cmsg_type = IP_PKTINFO;
  header->cmsg_len = CMSG_LEN(sizeof source);
  std::memcpy(CMSG_DATA(header), &source, sizeof source);

  // A lost answer is like any lost datagram: the scanner asks again.
  static_cast<void>(::sendmsg(responder.socket.get(), &message, MSG_DONTWAIT));
}

// is_own_address tells whether answers can come from an address; if not, errno
// tells why.
bool is_own_address(const Ipv4Address& address) {
  std::int32_t handle;
  if (!udp_open(handle)) return false;
  const FileDescriptor socket(handle);
  return udp_bind(handle, address, 0);
}

}  // namespace

ErrorText open_responder(std::uint16_t port, const TroubleMix& troubles,
                         Responder& out_responder) {
  for (const auto& share :
       std::span(troubles.shares).first(troubles.num_shares)) {
    if (share.trouble.kind->form == ArgumentForm::kAddress &&
        !is_own_address(share.trouble.address)) {
      return os_failure("Error answering from another address");
    }
  }
  std::int32_t handle;
  if (!udp_open(handle)) return os_failure("Error creating discovery socket");
  FileDescriptor socket(handle);
  if (!udp_bind(handle, {0, 0, 0, 0}, port)) {
    return os_failure("Error binding discovery socket");
  }
  out_responder.socket = std::move(socket);
  return {};
}

void answer_query(Responder& responder, const TroubleMix& troubles) {
  // One byte more than a query shows a datagram that is too long for one.
  std::array<std::uint8_t, DiscoveryDatagram{}.size() + 1> bytes;
  ssize_t length = bytes.size();
  UdpPeer sender;
  if (udp_receive(responder.socket.get(), sender.address, sender.port,
                  bytes.data(), length)) {
    return;
  }
  if (!is_discovery_query(bytes.data(), static_cast<std::size_t>(length))) {
    return;
  }
  if (is_loopback(responder.own_address) && !is_loopback(sender.address)) {
    return;
  }
  if (const Trouble* trouble = pick(troubles, responder.num_queries++)) {
    trouble->kind->respond(responder, *trouble, sender);
  } else {
    send_answer(responder, responder.own_address, sender);
  }
}

Deadline next_late_answer(const Responder& responder) {
  Deadline first = kNoDeadline;
  for (const auto& late : std::span(responder.late).first(responder.num_late)) {
    first = std::min(first, late.time);
  }
  return first;
}

void answer_late_queries(Responder& responder) {
  for (std::size_t i = responder.num_late; i > 0; --i) {
    const Responder::LateAnswer late = responder.late[i - 1];
    if (!is_past(late.time)) continue;
    send_answer(responder, responder.own_address, late.to);
    responder.late[i - 1] = responder.late[--responder.num_late];
  }
}

void respond_twice(Responder& responder, const Trouble&, const UdpPeer& to) {
  send_answer(responder, responder.own_address, to);
  send_answer(responder, responder.own_address, to);
}

void respond_late(Responder& responder, const Trouble& trouble,
                  const UdpPeer& to) {
  if (responder.num_late == responder.late.size()) return;
  const Deadline time = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(trouble.number);
  responder.late[responder.num_late++] = {time, to};
}

void respond_damaged(Responder& responder, const Trouble&, const UdpPeer& to) {
  DiscoveryDatagram answer = build_discovery_answer();
  answer[0] ^= 0xFF;
  send_answer(responder, responder.own_address, to, answer);
}

void respond_from_elsewhere(Responder& responder, const Trouble& trouble,
                            const UdpPeer& to) {
  send_answer(responder, trouble.address, to);
}

}  // namespace velprobe::standin
