// The discovery scan: finds servers on the local networks by UDP broadcast.
#ifndef VELPROBE_PROBE_DISCOVERY_SCAN_H_
#define VELPROBE_PROBE_DISCOVERY_SCAN_H_

#include <cstdint>

#include "../net/interfaces.h"
#include "../util/error_text.h"
#include "../util/text.h"

#pragma GCC visibility push(default)
namespace velprobe {

// scan_for_servers asks on every interface's broadcast address, loopback
// included, three times, and collects who answers until a second of silence
// follows the third: a little more than 3 seconds on a quiet network.
//
// It stores a text list (see next_text) of dotted-decimal addresses in the
// order of their first answers, each once; empty when nobody answered. After a
// failure found_servers holds nothing.
//   "found_servers must not be NULL"
//   "Out of memory"
//   "No memory for small nic structure"
//   "Could not create socket"
//   the texts of udp_set_broadcast and of udp_send, which a single network that
//   takes no broadcast is enough for
ErrorText scan_for_servers(std::uint16_t port, Text* found_servers);

// scan_interfaces is the scan over a given list of interfaces, ended by a
// record without a name, of which only the broadcast addresses count.
//   the texts of scan_for_servers
ErrorText scan_interfaces(const NicInfo* nics, std::uint16_t port,
                          Text* found_servers);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROBE_DISCOVERY_SCAN_H_
