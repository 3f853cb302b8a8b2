// Names to addresses, many at once, none for longer than its time.
#ifndef VELPROBE_CHECK_LOOK_UP_H_
#define VELPROBE_CHECK_LOOK_UP_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/address.h"
#include "util/deadline.h"

namespace velprobe::check {

// Found is what the look-up of one name gave: addresses, or a failure and
// whether it was the time.
struct Found {
  std::vector<Ipv4Address> addresses = {};
  std::string failure = {};
  bool timed_out = false;
  double seconds = 0;
};

// LookUps asks the C library for names in threads of its own. A call that hangs
// in there cannot be ended: its thread is left to itself and another takes its
// place.
class LookUps : public std::enable_shared_from_this<LookUps> {
 public:
  // Called once a name, in any thread, with the number that add got.
  using Deliver = std::function<void(std::size_t number, const Found& found)>;

  // each is what one name may take.
  LookUps(std::size_t most_at_once, std::chrono::steady_clock::duration each,
          Deliver deliver)
      : most_at_once_(most_at_once),
        each_(each),
        deliver_(std::move(deliver)) {}

  // add queues a name. False when there is no thread and none is to be had.
  [[nodiscard]] bool add(std::size_t number, const std::string& name);

  // expire delivers the failure of every look-up that has had its time, and
  // tells when to call it next (kNoDeadline: after the next add).
  Deadline expire();

 private:
  struct Task {
    std::size_t number = 0;
    std::string name;
    std::chrono::steady_clock::time_point started = {};
  };

  bool grow();
  void serve();
  std::vector<Task> take_expired();
  Deadline next_expiry();

  const std::size_t most_at_once_;
  const std::chrono::steady_clock::duration each_;
  const Deliver deliver_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Task> waiting_;
  std::map<std::size_t, Task> running_;  // by number
  std::size_t num_threads_ = 0;          // those not left to themselves
  std::size_t num_lost_ = 0;
};

// is_dotted tells whether a name is an address, which needs no look-up.
bool is_dotted(const std::string& name, Ipv4Address& out_address);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_LOOK_UP_H_
