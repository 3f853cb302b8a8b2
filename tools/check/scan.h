// The discovery scan on every interface at once.
#ifndef VELPROBE_CHECK_SCAN_H_
#define VELPROBE_CHECK_SCAN_H_

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace velprobe::check {

// Scanned is what the scan on one interface gave: servers, or a failure.
struct Scanned {
  std::string interface;
  std::vector<std::string> servers;
  std::string failure;
};

// start_scans starts a scan on each interface in a thread of its own, so that
// one that fails says nothing about the others, and gives their names. deliver
// is called once for each, in that thread. Interfaces for which no thread is to
// be had go to out_unscanned instead.
std::set<std::string> start_scans(
    std::uint16_t port, const std::function<void(const Scanned&)>& deliver,
    std::set<std::string>& out_unscanned);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_SCAN_H_
