#include "discovery_responder.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstring>

#include "net/system_socket.h"
#include "net/udp.h"
#include "probe/discovery_datagram.h"

namespace velprobe {

namespace {

bool is_loopback(const Ipv4Address& address) {
  return address[0] == 127;
}

// send_answer names the source address in the datagram's control data
// (IP_PKTINFO), since a socket that is to hear broadcasts has none of its own.
// The address 0.0.0.0 leaves the choice to the system.
void send_answer(int socket, const Ipv4Address& from, const Ipv4Address& to,
                 std::uint16_t to_port) {
  sockaddr_in peer = to_sockaddr(to, to_port);
  DiscoveryDatagram answer = build_discovery_answer();
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
  static_cast<void>(::sendmsg(socket, &message, MSG_DONTWAIT));
}

}  // namespace

ErrorText open_responder(std::uint16_t port, FileDescriptor& out_socket) {
  std::int32_t handle;
  if (!udp_open(handle)) return os_failure("Error creating discovery socket");
  FileDescriptor socket(handle);
  if (!udp_bind(handle, {0, 0, 0, 0}, port)) {
    return os_failure("Error binding discovery socket");
  }
  out_socket = std::move(socket);
  return {};
}

void answer_query(const FileDescriptor& socket,
                  const Ipv4Address& own_address) {
  // One byte more than a query shows a datagram that is too long for one.
  std::array<std::uint8_t, DiscoveryDatagram{}.size() + 1> bytes;
  ssize_t length = bytes.size();
  Ipv4Address sender;
  std::uint16_t port;
  if (udp_receive(socket.get(), sender, port, bytes.data(), length)) return;
  if (!is_discovery_query(bytes.data(), static_cast<std::size_t>(length))) {
    return;
  }
  if (is_loopback(own_address) && !is_loopback(sender)) return;
  send_answer(socket.get(), own_address, sender, port);
}

}  // namespace velprobe
