// Answers discovery queries over UDP.
#ifndef VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_
#define VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_

#include <cstdint>

#include "net/address.h"
#include "util/error_text.h"
#include "util/owners.h"

namespace velprobe {

// open_responder opens a UDP socket that hears queries to any address of this
// host, broadcasts among them, on the port.
//   "Error creating discovery socket: %s", "Error binding discovery socket: %s"
ErrorText open_responder(std::uint16_t port, FileDescriptor& out_socket);

// answer_query takes one waiting datagram and answers it from own_address if it
// is a query; with an own address on loopback, only if it comes from there too.
void answer_query(const FileDescriptor& socket, const Ipv4Address& own_address);

}  // namespace velprobe

#endif  // VELPROBE_STANDIN_DISCOVERY_RESPONDER_H_
