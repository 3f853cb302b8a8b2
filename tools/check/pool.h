// A bounded pool of threads that asks many servers at once, and each politely.
#ifndef VELPROBE_CHECK_POOL_H_
#define VELPROBE_CHECK_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "net/address.h"

namespace velprobe::check {

// Pool works off jobs, known by their numbers, in threads of its own: in the
// order in which they came, but never more at one address than a limit, and
// never sooner than an interval after the one before. Threads start as they are
// needed and nobody waits for them: the pool lives as long as one of them does.
class Pool : public std::enable_shared_from_this<Pool> {
 public:
  using Clock = std::chrono::steady_clock;
  using Work = std::function<void(std::size_t job)>;

  // work is called in several threads at once; it must not throw.
  Pool(std::size_t most_at_once, std::size_t most_per_address, Work work,
       Clock::duration interval = {})
      : most_at_once_(most_at_once),
        most_per_address_(most_per_address),
        interval_(interval),
        work_(std::move(work)) {}

  // add queues a job. False when there is no thread and none is to be had.
  [[nodiscard]] bool add(std::size_t job, const Ipv4Address& address);

 private:
  // Lane holds the jobs of one address. It stands in ready_ exactly while it
  // has a job waiting and may start it, now or when it is due.
  struct Lane {
    std::deque<std::size_t> waiting;
    std::size_t num_running = 0;
    bool is_ready = false;
    Clock::time_point due;  // of the next job, by the interval
  };

  bool grow();
  void serve();
  void offer(Lane& lane);
  Lane& wait_for_lane(std::unique_lock<std::mutex>& lock);
  std::size_t take(Lane& lane);

  const std::size_t most_at_once_;
  const std::size_t most_per_address_;
  const Clock::duration interval_;
  const Work work_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<Ipv4Address, Lane> lanes_;
  std::set<std::pair<Clock::time_point, Lane*>> ready_;  // by when to start
  Clock::time_point timer_ = Clock::time_point::max();   // a thread wakes then
  std::size_t num_unfinished_ = 0;
  std::size_t num_threads_ = 0;
  std::size_t num_idle_ = 0;
};

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_POOL_H_
