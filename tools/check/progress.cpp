#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace velprobe::check {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirst = std::chrono::seconds(1);
constexpr auto kInterval = std::chrono::milliseconds(200);
constexpr char kWipe[] = "\r\033[K";

}  // namespace

Progress::Progress(Deadline end) : end_(end) {
  if (::isatty(STDERR_FILENO) != 0) due_ = Clock::now() + kFirst;
}

Progress::~Progress() {
  if (shown_) std::fputs(kWipe, stderr);
}

void Progress::show(const Standing& standing) {
  const auto now = Clock::now();
  if (now < due_) return;
  const auto left = std::chrono::ceil<std::chrono::seconds>(end_ - now);
  std::fputs(kWipe, stderr);
  std::fprintf(stderr, "velcheck: %zu of %zu asked, %zu answered, %lld s left",
               standing.num_asked, standing.num_rows, standing.num_done,
               static_cast<long long>(std::max<long long>(left.count(), 0)));
  shown_ = true;
  due_ = now + kInterval;
}

}  // namespace velprobe::check
