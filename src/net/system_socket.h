// What goes with the system's socket calls, for the sources that make them.
#ifndef VELPROBE_NET_SYSTEM_SOCKET_H_
#define VELPROBE_NET_SYSTEM_SOCKET_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>

#include "address.h"

namespace velprobe {

// to_sockaddr builds the system's form of an address and a port.
inline sockaddr_in to_sockaddr(const Ipv4Address& address, std::uint16_t port) {
  sockaddr_in system_address{};
  system_address.sin_family = AF_INET;
  system_address.sin_port = htons(port);
  std::memcpy(&system_address.sin_addr, address.data(), address.size());
  return system_address;
}

// address_of and port_of take the system's form apart again.
inline Ipv4Address address_of(const sockaddr_in& system_address) {
  Ipv4Address address;
  std::memcpy(address.data(), &system_address.sin_addr, address.size());
  return address;
}

inline std::uint16_t port_of(const sockaddr_in& system_address) {
  return ntohs(system_address.sin_port);
}

// as_sockaddr is the pointer that the system's calls take.
inline sockaddr* as_sockaddr(sockaddr_in* address) {
  return reinterpret_cast<sockaddr*>(address);
}

inline const sockaddr* as_sockaddr(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

}  // namespace velprobe

#endif  // VELPROBE_NET_SYSTEM_SOCKET_H_
