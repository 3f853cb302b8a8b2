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
                    [self = shared_from_this()] { self->serve(); }))
    return num_threads_ > 0;
  ++num_threads_;
  return true;
}

// offer makes a lane ready if it can be, and wakes a thread for it.
void Pool::offer(Lane& lane) {
  if (lane.is_ready || lane.waiting.empty() ||
      lane.num_running >= most_per_address_)
    return;
  lane.is_ready = true;
  ready_.push_back(&lane);
  if (num_idle_ > 0) changed_.notify_one();
}

std::size_t Pool::take(Lane*& out_lane) {
  Lane& lane = *ready_.front();
  ready_.pop_front();
  lane.is_ready = false;
  const std::size_t job = lane.waiting.front();
  lane.waiting.pop_front();
  ++lane.num_running;
  offer(lane);
  out_lane = &lane;
  return job;
}

void Pool::serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++num_idle_;
    changed_.wait(lock, [this] { return !ready_.empty(); });
    --num_idle_;
    Lane* lane = nullptr;
    const std::size_t job = take(lane);
    lock.unlock();
    work_(job);
    lock.lock();
    --num_unfinished_;
    --lane->num_running;
    offer(*lane);
  }
}

}  // namespace velprobe::check
