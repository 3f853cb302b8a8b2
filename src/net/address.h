// IPv4 addresses as every room above the sockets knows them.
#ifndef VELPROBE_NET_ADDRESS_H_
#define VELPROBE_NET_ADDRESS_H_

#include <array>
#include <cstdint>

#pragma GCC visibility push(default)
namespace velprobe {

// Ipv4Address holds the four bytes of an address in network order, most
// significant first. Ports travel beside it as unsigned 16-bit numbers in host
// order.
using Ipv4Address = std::array<std::uint8_t, 4>;

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_ADDRESS_H_
