// The machine's IPv4 interfaces.
#ifndef VELPROBE_NET_INTERFACES_H_
#define VELPROBE_NET_INTERFACES_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>

#include "address.h"

#pragma GCC visibility push(default)
namespace velprobe {

// NicInfo describes one interface. A field that the system did not tell is
// zero.
struct NicInfo {
  char name[128];  // never empty, except in the record that ends a list
  sockaddr_in address;
  sockaddr_in broadcast;  // computed when the system gives none
  sockaddr_in netmask;
  sockaddr hardware;  // family and the six bytes of the MAC address
  std::uint32_t mtu;
};

// list_nics lists the interfaces that are up and have an IPv4 address, loopback
// included, in the system's order; a record with an empty name ends the list.
// Null when the system cannot be asked or memory runs out.
std::unique_ptr<NicInfo[]> list_nics();

// directed_broadcast is the broadcast address of an interface's network;
// 255.255.255.255 when the mask is unknown (zero).
Ipv4Address directed_broadcast(const Ipv4Address& address,
                               const Ipv4Address& netmask);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_INTERFACES_H_
