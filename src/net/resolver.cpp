#include "resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

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

bool has_address(const hostent& host) {
  return host.h_addrtype == AF_INET && host.h_addr_list != nullptr &&
         host.h_addr_list[0] != nullptr;
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
  // An address needs none of the machinery behind names, which takes memory and
  // does not bear it well when there is none.
  if (::inet_pton(AF_INET, name, out_address.data()) == 1) return {};
  const hostent* host = ::gethostbyname(name);
  if (host == nullptr) return resolver_failure(name, h_errno);
  if (!has_address(*host)) {
    return format_error_text("No addresses found when resolving \"%s\"", name);
  }
  std::memcpy(out_address.data(), host->h_addr_list[0], out_address.size());
  return {};
}

bool reverse_resolve(const Ipv4Address& address, const char** out_name) {
  const hostent* host = ::gethostbyaddr(
      address.data(), static_cast<socklen_t>(address.size()), AF_INET);
  if (host == nullptr || host->h_name == nullptr || out_name == nullptr) {
    return false;
  }
  *out_name = host->h_name;
  return true;
}

bool local_hostname(char* buffer, std::size_t size) {
  return ::gethostname(buffer, size) == 0;
}

const char* address_text(const Ipv4Address& address) {
  static char text[sizeof "255.255.255.255"];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", address[0], address[1],
                address[2], address[3]);
  return text;
}

}  // namespace velprobe
