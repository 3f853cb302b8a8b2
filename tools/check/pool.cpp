#include "pool.h"

#include <algorithm>

#include "thread.h"

namespace velprobe::check {

bool Pool::add(std::size_t job, const Ipv4Address& address) {
  const std::lock_guard lock(mutex_);
  Lane& lane = lanes_[address];
  lane.waiting.push_back(job);
  ++num_unfinished_;
  offer(lane);
  return grow();
}

// grow starts another thread if there is work for one. With fewer threads than
// wanted it goes on as long as there is any.
bool Pool::grow() {
  const std::size_t useful =
      std::min({most_at_once_, num_unfinished_,
                lanes_.size() * std::min(most_per_address_, most_at_once_)});
  if (num_threads_ >= useful) return true;
  if (!start_thread(kProbeStack,
                    [self = shared_from_this()] { self->serve(); })) {
    return num_threads_ > 0;
  }
  ++num_threads_;
  return true;
}

// offer makes a lane ready if it can be, and wakes a thread for it.
void Pool::offer(Lane& lane) {
  if (lane.is_ready || lane.waiting.empty() ||
      lane.num_running >= most_per_address_) {
    return;
  }
  lane.is_ready = true;
  ready_.emplace(std::max(lane.due, Clock::now()), &lane);
  if (num_idle_ > 0) changed_.notify_one();
}

// wait_for_lane waits until a lane may start a job. Of all idle threads one
// watches the clock for the others.
Pool::Lane& Pool::wait_for_lane(std::unique_lock<std::mutex>& lock) {
  for (;;) {
    const auto due =
        ready_.empty() ? Clock::time_point::max() : ready_.begin()->first;
    if (due <= Clock::now()) return *ready_.begin()->second;
    if (due >= timer_ || ready_.empty()) {
      changed_.wait(lock);
      continue;
    }
    timer_ = due;
    changed_.wait_until(lock, due);
    timer_ = Clock::time_point::max();
  }
}

std::size_t Pool::take(Lane& lane) {
  ready_.erase(ready_.begin());
  lane.is_ready = false;
  const std::size_t job = lane.waiting.front();
  lane.waiting.pop_front();
  ++lane.num_running;
  // A start that came late is made up for, but never by more than one.
  lane.due = std::max(lane.due, Clock::now() - interval_) + interval_;
  offer(lane);
  // Somebody else must watch the clock now.
  if (!ready_.empty() && num_idle_ > 0) changed_.notify_one();
  return job;
}

void Pool::serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++num_idle_;
    Lane& lane = wait_for_lane(lock);
    --num_idle_;
    const std::size_t job = take(lane);
    lock.unlock();
    work_(job);
    lock.lock();
    --num_unfinished_;
    --lane.num_running;
    offer(lane);
  }
}

}  // namespace velprobe::check
