#include "interfaces.h"

#include <sys/ioctl.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "../util/owners.h"
#include "interface_name.h"
#include "system_socket.h"

namespace velprobe {

namespace {

struct RequestList {
  std::unique_ptr<ifreq[]> requests;
  int count = 0;
};

// read_configuration asks for ever more entries: an answer that fills the whole
// list may have been cut. False when the system fails or memory runs out.
bool read_configuration(int socket, RequestList& out_list) {
  for (std::size_t capacity = 2;; capacity *= 2) {
    std::unique_ptr<ifreq[]> requests(new (std::nothrow) ifreq[capacity]());
    if (!requests) return false;

    const int size = static_cast<int>(capacity * sizeof(ifreq));
    ifconf configuration{};
    configuration.ifc_len = size;
    configuration.ifc_req = requests.get();
    if (::ioctl(socket, SIOCGIFCONF, &configuration) < 0) return false;
    if (configuration.ifc_len == size) continue;

    out_list.requests = std::move(requests);
    out_list.count = configuration.ifc_len / static_cast<int>(sizeof(ifreq));
    return true;
  }
}

// query leaves the answer of one of the system's questions about an interface
// in out_answer. The whole entry goes in: an interface may have several
// addresses, and the system answers for the one that it finds there.
bool query(int socket, const ifreq& entry, unsigned long question,
           ifreq& out_answer) {
  out_answer = entry;
  return ::ioctl(socket, question, &out_answer) == 0;
}

sockaddr_in query_address(int socket, const ifreq& entry,
                          unsigned long question) {
  sockaddr_in address{};
  ifreq answer;
  if (query(socket, entry, question, answer)) {
    std::memcpy(&address, &answer.ifr_addr, sizeof address);
  }
  return address;
}

bool is_usable(int socket, const ifreq& entry) {
  if (entry.ifr_addr.sa_family != AF_INET) return false;
  ifreq answer;
  return !query(socket, entry, SIOCGIFFLAGS, answer) ||
         (answer.ifr_flags & IFF_UP) != 0;
}

void complete_broadcast(NicInfo& nic) {
  if (nic.broadcast.sin_addr.s_addr != 0) return;
  const Ipv4Address broadcast =
      directed_broadcast(address_of(nic.address), address_of(nic.netmask));
  nic.broadcast = to_sockaddr(broadcast, 0);
}

void fill_nic(int socket, const ifreq& entry, int index, NicInfo& nic) {
  set_nic_name(nic, entry.ifr_name, index);
  std::memcpy(&nic.address, &entry.ifr_addr, sizeof nic.address);
  nic.broadcast = query_address(socket, entry, SIOCGIFBRDADDR);
  nic.netmask = query_address(socket, entry, SIOCGIFNETMASK);
  complete_broadcast(nic);

  constexpr std::size_t kMacSize = 6;
  ifreq answer;
  if (query(socket, entry, SIOCGIFHWADDR, answer)) {
    nic.hardware.sa_family = answer.ifr_hwaddr.sa_family;
    std::memcpy(nic.hardware.sa_data, answer.ifr_hwaddr.sa_data, kMacSize);
  }
  if (query(socket, entry, SIOCGIFMTU, answer)) {
    nic.mtu = static_cast<std::uint32_t>(answer.ifr_mtu);
  }
}

}  // namespace

std::unique_ptr<NicInfo[]> list_nics() {
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return nullptr;
  RequestList list;
  if (!read_configuration(socket.get(), list)) return nullptr;

  // One record more than entries: a zero record ends the list in any case.
  const auto num_records = static_cast<std::size_t>(list.count) + 1;
  std::unique_ptr<NicInfo[]> nics(new (std::nothrow) NicInfo[num_records]());
  if (!nics) return nullptr;

  NicInfo* next = nics.get();
  for (int index = 0; index < list.count; ++index) {
    const ifreq& entry = list.requests[static_cast<std::size_t>(index)];
    if (!is_usable(socket.get(), entry)) continue;
    fill_nic(socket.get(), entry, index, *next);
    ++next;
  }
  return nics;
}

Ipv4Address directed_broadcast(const Ipv4Address& address,
                               const Ipv4Address& netmask) {
  Ipv4Address broadcast;
  for (std::size_t i = 0; i < broadcast.size(); ++i) {
    broadcast[i] = static_cast<std::uint8_t>((address[i] & netmask[i]) |
                                             (~netmask[i] & 0xFF));
  }
  return broadcast;
}

void set_nic_name(NicInfo& nic, const char (&system_name)[IFNAMSIZ],
                  int index) {
  // The record is wider than the system's field, which a NUL need not end.
  const std::size_t length = ::strnlen(system_name, IFNAMSIZ);
  std::memcpy(nic.name, system_name, length);
  nic.name[length] = '\0';
  if (length == 0) {
    std::snprintf(nic.name, sizeof nic.name, "no name(%d)", index);
  }
}

}  // namespace velprobe
