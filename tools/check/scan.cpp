#include "scan.h"

#include <memory>
#include <utility>

#include "net/interfaces.h"
#include "probe/discovery_scan.h"
#include "result.h"
#include "thread.h"
#include "util/text.h"

namespace velprobe::check {
namespace {

using Deliver = std::function<void(const Scanned&)>;

// What the system does not tell by interface is asked for as a whole.
constexpr char kAnyInterface[] = "any interface";

// nic is null for kAnyInterface.
Scanned scan_interface(const std::string& name, const NicInfo* nic,
                       std::uint16_t port) {
  Scanned scanned{name, {}, {}};
  Text servers;
  // A record without a name ends the list.
  const NicInfo list[] = {nic != nullptr ? *nic : NicInfo{}, NicInfo{}};
  if (ErrorText error = nic != nullptr ? scan_interfaces(list, port, &servers)
                                       : scan_for_servers(port, &servers)) {
    scanned.failure = error.c_str();
    return scanned;
  }
  for (const char* server = servers.get(); *server != '\0';
       server = next_text(server)) {
    scanned.servers.emplace_back(server);
  }
  return scanned;
}

bool start_scan(const std::string& name, const NicInfo* nic, std::uint16_t port,
                const Deliver& deliver) {
  auto own = nic != nullptr ? std::make_shared<const NicInfo>(*nic) : nullptr;
  return start_thread(kLookUpStack,
                      [=] { deliver(scan_interface(name, own.get(), port)); });
}

}  // namespace

std::set<std::string> start_scans(std::uint16_t port, const Deliver& deliver,
                                  std::set<std::string>& out_unscanned) {
  const std::unique_ptr<NicInfo[]> nics = list_nics();
  std::set<std::string> names;
  const auto start = [&](const char* name, const NicInfo* nic) {
    if (!names.insert(name).second) return;
    if (start_scan(name, nic, port, deliver)) return;
    names.erase(name);
    out_unscanned.insert(name);
  };
  for (const NicInfo* nic = nics.get(); nic != nullptr && nic->name[0] != '\0';
       ++nic) {
    start(nic->name, nic);
  }
  if (names.empty() && out_unscanned.empty()) start(kAnyInterface, nullptr);
  return names;
}

}  // namespace velprobe::check
