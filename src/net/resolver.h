// Host names and address texts, IPv4 only, through the system's classic
// lookups in their reentrant forms (gethostbyname_r and its kin): any number of
// threads may look names up at once.
//
// How long a look-up takes is the system's affair (resolv.conf(5)); no limit
// and no deadline of this library bounds it. An address in dotted decimal asks
// nobody.
#ifndef VELPROBE_NET_RESOLVER_H_
#define VELPROBE_NET_RESOLVER_H_

#include <cstddef>
#include <span>

#include "../util/error_text.h"
#include "address.h"

#pragma GCC visibility push(default)
namespace velprobe {

// resolve_host stores the first address of a host name or dotted-decimal text.
// A failure leaves out_address untouched.
//   "No addresses found when resolving \"%s\""
//   "Error resolving \"%s\": Host name not found"
//   "Error resolving \"%s\": Temporary error from name server"
//   "Error resolving \"%s\": Unrecoverable error from name server"
//   "Error resolving \"%s\": Name server returned no address"
//   "Error resolving \"%s\": Unknown error: %d": -1 for a shortage of memory
ErrorText resolve_host(const char* name, Ipv4Address& out_address);

// resolve_host_all stores all addresses of a name in the system's order, as
// many as there is space for, and their number in out_count. A failure leaves
// both untouched.
//   the texts of resolve_host
ErrorText resolve_host_all(const char* name,
                           std::span<Ipv4Address> out_addresses,
                           std::size_t& out_count);

// reverse_resolve stores a reference to the official name of an address, which
// stays valid until the thread's next call of reverse_resolve. False when there
// is none or out_name is null.
bool reverse_resolve(const Ipv4Address& address, const char** out_name);

// local_hostname stores the machine's host name; true on success.
bool local_hostname(char* buffer, std::size_t size);

// address_text prints an address in dotted decimal into a buffer that the
// thread's next call overwrites.
const char* address_text(const Ipv4Address& address);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_RESOLVER_H_
