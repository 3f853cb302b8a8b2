#include "resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "../util/byte_buffer.h"
#include "resolver_failure.h"

namespace velprobe {

namespace {

struct ResolverError {
  int code;
  const char* text;
};

constexpr ResolverError kResolverErrors[] = {
    {HOST_NOT_FOUND, "Host name not found"},
    {TRY_AGAIN, "Temporary error from name server"},
    {NO_RECOVERY, "Unrecoverable error from name server"},
    {NO_DATA, "Name server returned no address"},
};

// Answer owns the memory that an answer of the system points into.
struct Answer {
  ByteBuffer memory;
  hostent entry{};
  const hostent* host = nullptr;  // &entry, or null after a failure
  int code = NETDB_INTERNAL;      // why
};

// look_up asks with ever more memory until the answer fits.
//   system_call(entry, memory, size, result, code)
template <typename SystemCall>
void look_up(Answer& answer, SystemCall system_call) {
  for (std::size_t size = 1024;; size *= 2) {
    if (!answer.memory.reserve(size)) return;
    hostent* host = nullptr;
    const int status = system_call(&answer.entry, answer.memory.data(), size,
                                   &host, &answer.code);
    if (status == ERANGE && answer.code == NETDB_INTERNAL) continue;
    answer.host = host;
    return;
  }
}

std::size_t copy_addresses(const hostent& host,
                           std::span<Ipv4Address> out_addresses) {
  if (host.h_addrtype != AF_INET || host.h_addr_list == nullptr) return 0;
  std::size_t count = 0;
  for (; count < out_addresses.size() && host.h_addr_list[count] != nullptr;
       ++count) {
    std::memcpy(out_addresses[count].data(), host.h_addr_list[count],
                sizeof(Ipv4Address));
  }
  return count;
}

}  // namespace

ErrorText resolver_failure(const char* name, int code) {
  const char* failed = format_error_text("Error resolving \"%s\"", name);
  for (const ResolverError& error : kResolverErrors) {
    if (error.code == code) {
      return format_error_text("%s: %s", failed, error.text);
    }
  }
  return format_error_text("%s: Unknown error: %d", failed, code);
}

ErrorText resolve_host(const char* name, Ipv4Address& out_address) {
  std::size_t count;
  return resolve_host_all(name, {&out_address, 1}, count);
}

ErrorText resolve_host_all(const char* name,
                           std::span<Ipv4Address> out_addresses,
                           std::size_t& out_count) {
  // An address needs none of the machinery behind names, which takes memory and
  // does not bear it well when there is none.
  Ipv4Address address;
  if (::inet_pton(AF_INET, name, address.data()) == 1) {
    out_count = std::min<std::size_t>(1, out_addresses.size());
    if (out_count != 0) out_addresses[0] = address;
    return {};
  }
  Answer answer;
  look_up(answer,
          [name](auto... place) { return ::gethostbyname_r(name, place...); });
  if (answer.host == nullptr) return resolver_failure(name, answer.code);
  const std::size_t count = copy_addresses(*answer.host, out_addresses);
  if (count == 0 && !out_addresses.empty()) {
    return format_error_text("No addresses found when resolving \"%s\"", name);
  }
  out_count = count;
  return {};
}

bool reverse_resolve(const Ipv4Address& address, const char** out_name) {
  if (out_name == nullptr) return false;
  thread_local Answer answer;
  answer = {};
  look_up(answer, [&address](auto... place) {
    return ::gethostbyaddr_r(address.data(),
                             static_cast<socklen_t>(address.size()), AF_INET,
                             place...);
  });
  if (answer.host == nullptr || answer.host->h_name == nullptr) return false;
  *out_name = answer.host->h_name;
  return true;
}

bool local_hostname(char* buffer, std::size_t size) {
  return ::gethostname(buffer, size) == 0;
}

const char* address_text(const Ipv4Address& address) {
  thread_local char text[sizeof "255.255.255.255"];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", address[0], address[1],
                address[2], address[3]);
  return text;
}

}  // namespace velprobe
