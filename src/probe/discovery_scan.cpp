#include "discovery_scan.h"

#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "../net/resolver.h"
#include "../net/system_socket.h"
#include "../net/tcp.h"
#include "../net/udp.h"
#include "../util/byte_buffer.h"
#include "../util/owners.h"
#include "../util/text.h"
#include "address_set.h"
#include "discovery_datagram.h"

namespace velprobe {

namespace {

constexpr const char* kNoPlace = "found_servers must not be NULL";
constexpr int kSilenceSeconds = 1;
constexpr int kNumPasses = 3;
constexpr std::size_t kReceiveSize = 4096;

// FoundServers is the result while it grows.
struct FoundServers {
  ByteBuffer texts;  // each with its NUL
  AddressSet addresses;
};

bool append(FoundServers& found, const Ipv4Address& server) {
  const char* text = address_text(server);
  return found.addresses.add(server) &&
         found.texts.append({text, std::strlen(text) + 1});
}

ErrorText send_queries(std::int32_t socket, const NicInfo* nics,
                       std::uint16_t port) {
  const DiscoveryDatagram query = build_discovery_query();
  for (const NicInfo* nic = nics; nic->name[0] != '\0'; ++nic) {
    if (ErrorText error = udp_send(socket, address_of(nic->broadcast), port,
                                   query.data(), query.size())) {
      return error;
    }
  }
  return {};
}

// take_datagram receives one datagram; what is no answer never fails the scan.
ErrorText take_datagram(std::int32_t socket, FoundServers& found) {
  std::array<std::uint8_t, kReceiveSize> bytes;
  ssize_t length = bytes.size();
  Ipv4Address sender;
  std::uint16_t sender_port;
  if (ErrorText ignored =
          udp_receive(socket, sender, sender_port, bytes.data(), length)) {
    return {};
  }
  if (!is_discovery_answer(bytes.data(), static_cast<std::size_t>(length)) ||
      found.addresses.contains(sender)) {
    return {};
  }
  if (!append(found, sender)) return kNoMemory;
  return {};
}

ErrorText collect_answers(std::int32_t socket, FoundServers& found) {
  while (socket_wait_readable(socket, kSilenceSeconds)) {
    if (ErrorText error = take_datagram(socket, found)) return error;
  }
  return {};
}

// broadcast_only_list stands in when no interface is known: the query then goes
// to the limited broadcast address, 255.255.255.255.
std::unique_ptr<NicInfo[]> broadcast_only_list() {
  std::unique_ptr<NicInfo[]> nics(new (std::nothrow) NicInfo[2]());
  if (!nics) return nullptr;
  copy_bounded(nics[0].name, "dummy", sizeof nics[0].name);
  nics[0].broadcast.sin_family = AF_INET;
  nics[0].broadcast.sin_addr.s_addr = INADDR_BROADCAST;
  return nics;
}

}  // namespace

ErrorText scan_for_servers(std::uint16_t port, Text* found_servers) {
  if (found_servers == nullptr) return kNoPlace;
  std::unique_ptr<NicInfo[]> nics = list_nics();
  if (!nics || nics[0].name[0] == '\0') nics = broadcast_only_list();
  if (!nics) return {"No memory for small nic structure", ENOMEM};
  return scan_interfaces(nics.get(), port, found_servers);
}

ErrorText scan_interfaces(const NicInfo* nics, std::uint16_t port,
                          Text* found_servers) {
  if (found_servers == nullptr) return kNoPlace;
  found_servers->reset();
  std::int32_t handle;
  if (!udp_open(handle)) {
    return {"Could not create socket", take_last_os_error()};
  }
  const FileDescriptor socket(handle);
  if (ErrorText error = udp_set_broadcast(handle, true)) return error;

  FoundServers found;
  for (int pass = 0; pass < kNumPasses; ++pass) {
    if (ErrorText error = send_queries(handle, nics, port)) return error;
    if (ErrorText error = collect_answers(handle, found)) return error;
  }

  // The copy's own NUL ends the list.
  *found_servers = copy_text(found.texts.view());
  if (!*found_servers) return kNoMemory;
  return {};
}

}  // namespace velprobe
