#include "listener.h"

#include <sys/socket.h>

#include <utility>

#include "system_socket.h"

namespace velprobe {

ErrorText listen_on(const Ipv4Address& address, std::uint16_t port,
                    FileDescriptor& out_listener) {
  FileDescriptor socket(
      ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return os_failure("Error creating socket");
  // A restart must not wait for connections of the run before to fade.
  const int on = 1;
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) <
      0) {
    return os_failure("Error setting SO_REUSEADDR");
  }
  const sockaddr_in local = to_sockaddr(address, port);
  if (::bind(socket.get(), as_sockaddr(&local), sizeof local) < 0) {
    return os_failure("Error binding socket");
  }
  if (::listen(socket.get(), SOMAXCONN) < 0) {
    return os_failure("Error listening");
  }
  out_listener = std::move(socket);
  return {};
}

ErrorText accept_connection(const FileDescriptor& listener,
                            FileDescriptor& out_socket, Ipv4Address& out_peer,
                            std::uint16_t& out_port) {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  FileDescriptor socket(
      ::accept4(listener.get(), as_sockaddr(&peer), &size, SOCK_CLOEXEC));
  if (!socket) return os_failure("Error accepting connection");
  out_peer = address_of(peer);
  out_port = port_of(peer);
  out_socket = std::move(socket);
  return {};
}

}  // namespace velprobe
