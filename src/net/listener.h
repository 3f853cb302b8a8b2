// The accepting side of TCP, for programs that play the server.
#ifndef VELPROBE_NET_LISTENER_H_
#define VELPROBE_NET_LISTENER_H_

#include <cstdint>

#include "../util/error_text.h"
#include "../util/owners.h"
#include "address.h"

#pragma GCC visibility push(default)
namespace velprobe {

// listen_on opens a non-blocking TCP socket that listens on an address and a
// port; for port 0 the system chooses one, which socket_local_address tells. A
// failure leaves out_listener alone.
//   "Error creating socket: %s"
//   "Error setting SO_REUSEADDR: %s"
//   "Error binding socket: %s"
//   "Error listening: %s"
ErrorText listen_on(const Ipv4Address& address, std::uint16_t port,
                    FileDescriptor& out_listener);

// accept_connection takes one waiting connection, a blocking socket, and
// stores its other end. A failure leaves the listener usable: a client may
// have gone between its arrival and this call.
//   "Error accepting connection: %s"
ErrorText accept_connection(const FileDescriptor& listener,
                            FileDescriptor& out_socket, Ipv4Address& out_peer,
                            std::uint16_t& out_port);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_LISTENER_H_
