// IPv4 datagrams: broadcast, multicast membership, sending and receiving.
//
// A socket handle is an OS descriptor in a variable of the caller. The texts
// with a placeholder live in a buffer of the operation that forms them, one per
// thread: they stay valid until the same operation fails again in that thread.
// To wait for a datagram use socket_wait_readable.
#ifndef VELPROBE_NET_UDP_H_
#define VELPROBE_NET_UDP_H_

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "../util/error_text.h"
#include "address.h"

#pragma GCC visibility push(default)
namespace velprobe {

// udp_open creates a datagram socket and stores its handle, or -1, in
// out_socket. False when the system gives none.
bool udp_open(std::int32_t& out_socket);

// udp_close closes a socket. The handle 0 counts as no socket: it is left alone
// and the result is false.
bool udp_close(std::int32_t socket);

// udp_set_broadcast allows sending to broadcast addresses, whatever enable
// says.
//   "UDP set allow broadcast failed"
ErrorText udp_set_broadcast(std::int32_t socket, bool enable);

// udp_set_multicast turns multicast loop-back off, then joins the requested
// group or leaves it.
//   "UDP set multicast no loop mode failed."
//   "UDP set multicast membership failed."
//   "UDP unset multicast membership failed."
ErrorText udp_set_multicast(std::int32_t socket, const ip_mreq& request,
                            bool join);

// udp_send sends length bytes as one datagram.
//   "UDP send failed (%s)": the system's text
ErrorText udp_send(std::int32_t socket, const Ipv4Address& address,
                   std::uint16_t port, const void* bytes, std::size_t length);

// udp_receive receives one datagram of at most length bytes, cutting a longer
// one, and stores its sender. Length becomes the count received, or -1; after a
// failure the sender means nothing.
//   "UDP receive failed (%d).": the system's error number
ErrorText udp_receive(std::int32_t socket, Ipv4Address& out_sender,
                      std::uint16_t& out_port, void* buffer, ssize_t& length);

// udp_bind binds a socket to a local address and port; true on success.
bool udp_bind(std::int32_t socket, const Ipv4Address& address,
              std::uint16_t port);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_UDP_H_
