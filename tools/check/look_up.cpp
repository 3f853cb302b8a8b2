#include "look_up.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "joined.h"
#include "net/resolver.h"
#include "result.h"
#include "thread.h"

namespace velprobe::check {
namespace {

using Clock = std::chrono::steady_clock;

// Of one name; what is beyond goes unasked.
constexpr std::size_t kMostAddresses = 256;
// Those that hang count, too.
constexpr std::size_t kMostThreads = 256;

double seconds_of(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

bool has_ipv6_address(const char* name) {
  addrinfo wanted{};
  wanted.ai_family = AF_INET6;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  if (::getaddrinfo(name, nullptr, &wanted, &addresses) != 0) return false;
  ::freeaddrinfo(addresses);
  return true;
}

Found look_up(const std::string& name) {
  Found found;
  std::array<Ipv4Address, kMostAddresses> addresses;
  std::size_t count = 0;
  if (ErrorText error = resolve_host_all(name.c_str(), addresses, count)) {
    found.failure = error.c_str();
    if (has_ipv6_address(name.c_str())) {
      found.failure += joined({"; ", kOnlyIpv6});
    }
    return found;
  }
  found.addresses.assign(addresses.begin(), addresses.begin() + count);
  return found;
}

}  // namespace

bool LookUps::add(std::size_t number, const std::string& name) {
  const std::lock_guard lock(mutex_);
  waiting_.push_back({number, name});
  changed_.notify_one();
  if (grow()) return true;
  // Whoever came later would look it up after all, and tell it twice.
  waiting_.pop_back();
  return false;
}

// grow starts another thread if there is work for one. With fewer threads than
// wanted it goes on as long as there is any.
bool LookUps::grow() {
  const std::size_t useful =
      std::min({most_at_once_, waiting_.size() + running_.size(),
                kMostThreads - std::min(num_lost_, kMostThreads)});
  if (num_threads_ >= useful) return num_threads_ > 0;
  if (!start_thread(kLookUpStack,
                    [self = shared_from_this()] { self->serve(); })) {
    return num_threads_ > 0;
  }
  ++num_threads_;
  return true;
}

void LookUps::serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return !waiting_.empty(); });
    Task task = std::move(waiting_.front());
    waiting_.pop_front();
    task.started = Clock::now();
    running_[task.number] = task;
    lock.unlock();
    Found found = look_up(task.name);
    found.seconds = seconds_of(Clock::now() - task.started);
    lock.lock();
    if (running_.erase(task.number) == 0) {
      // Given up meanwhile. Most often another thread has taken the place.
      --num_lost_;
      if (num_threads_ >= most_at_once_) return;
      ++num_threads_;
      continue;
    }
    lock.unlock();
    deliver_(task.number, found);
    lock.lock();
  }
}

std::vector<LookUps::Task> LookUps::take_expired() {
  std::vector<Task> expired;
  const Clock::time_point latest = Clock::now() - each_;
  for (const auto& [number, task] : running_) {
    if (task.started <= latest) expired.push_back(task);
  }
  for (const Task& task : expired) {
    running_.erase(task.number);
    --num_threads_;
    ++num_lost_;
    static_cast<void>(grow());
  }
  return expired;
}

// What waits begins no sooner than now.
Deadline LookUps::next_expiry() {
  Deadline next = waiting_.empty() ? kNoDeadline : Clock::now() + each_;
  for (const auto& [number, task] : running_) {
    next = std::min(next, task.started + each_);
  }
  return next;
}

Deadline LookUps::expire() {
  std::unique_lock lock(mutex_);
  const std::vector<Task> expired = take_expired();
  const Deadline next = next_expiry();
  lock.unlock();
  for (const Task& task : expired) {
    deliver_(task.number, {.failure = kLookUpTimedOut,
                           .timed_out = true,
                           .seconds = seconds_of(each_)});
  }
  return next;
}

bool is_dotted(const std::string& name, Ipv4Address& out_address) {
  return ::inet_pton(AF_INET, name.c_str(), out_address.data()) == 1;
}

}  // namespace velprobe::check
