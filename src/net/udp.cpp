#include "udp.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "system_socket.h"

namespace velprobe {

bool udp_open(std::int32_t& out_socket) {
  out_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  return out_socket >= 0;
}

bool udp_close(std::int32_t socket) {
  if (socket == 0) return false;
  ::close(socket);
  return true;
}

ErrorText udp_set_broadcast(std::int32_t socket, bool /*enable*/) {
  const int on = 1;
  if (::setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) < 0) {
    return {"UDP set allow broadcast failed", take_last_os_error()};
  }
  return {};
}

ErrorText udp_set_multicast(std::int32_t socket, const ip_mreq& request,
                            bool join) {
  const int off = 0;
  if (::setsockopt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off) <
      0) {
    return {"UDP set multicast no loop mode failed.", take_last_os_error()};
  }
  const int membership = join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
  if (::setsockopt(socket, IPPROTO_IP, membership, &request, sizeof request) <
      0) {
    return {join ? "UDP set multicast membership failed."
                 : "UDP unset multicast membership failed.",
            take_last_os_error()};
  }
  return {};
}

ErrorText udp_send(std::int32_t socket, const Ipv4Address& address,
                   std::uint16_t port, const void* bytes, std::size_t length) {
  const sockaddr_in peer = to_sockaddr(address, port);
  if (::sendto(socket, bytes, length, 0, as_sockaddr(&peer), sizeof peer) < 0) {
    const int error_number = take_last_os_error();
    thread_local char text[256];
    std::snprintf(text, sizeof text, "UDP send failed (%s)",
                  os_error_text(error_number));
    return {text, error_number};
  }
  return {};
}

ErrorText udp_receive(std::int32_t socket, Ipv4Address& out_sender,
                      std::uint16_t& out_port, void* buffer, ssize_t& length) {
  sockaddr_in sender{};
  socklen_t size = sizeof sender;
  length = ::recvfrom(socket, buffer, static_cast<std::size_t>(length), 0,
                      as_sockaddr(&sender), &size);
  out_sender = address_of(sender);
  out_port = port_of(sender);
  if (length < 0) {
    const int error_number = take_last_os_error();
    thread_local char text[128];
    std::snprintf(text, sizeof text, "UDP receive failed (%d).", error_number);
    return {text, error_number};
  }
  return {};
}

bool udp_bind(std::int32_t socket, const Ipv4Address& address,
              std::uint16_t port) {
  const sockaddr_in local = to_sockaddr(address, port);
  return ::bind(socket, as_sockaddr(&local), sizeof local) == 0;
}

}  // namespace velprobe
