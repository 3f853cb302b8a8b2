// The run: look-ups, scan and conversations side by side, until all is known or
// time is up.
#ifndef VELPROBE_CHECK_RUN_H_
#define VELPROBE_CHECK_RUN_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "look_up.h"
#include "plan.h"
#include "pool.h"
#include "result.h"
#include "scan.h"
#include "util/deadline.h"

namespace velprobe::check {

struct Settings {
  bool scan = false;
  bool all_addresses = false;
  std::size_t jobs = 1;
  std::size_t per_server = 1;
  std::chrono::steady_clock::duration interval{};  // of agents at one address
  Deadline deadline = kNoDeadline;                 // of the run
  std::chrono::steady_clock::duration each{};      // server
  std::string host;                                // this one's name
};

// Standing is how far a run has come, in rows.
struct Standing {
  std::size_t num_rows = 0;
  std::size_t num_asked = 0;
  std::size_t num_done = 0;
};

// Run is one run. Threads that hang in a look-up or a scan outlive it, so it
// lives in a shared pointer, which they hold, and ends with the program.
class Run : public std::enable_shared_from_this<Run> {
 public:
  Run(Plan plan, const Settings& settings);

  // start sets everything going; it does not wait.
  void start();

  // is_over tells whether every row is known and no scan goes on.
  bool is_over();

  // is_asking tells whether a conversation goes on.
  bool is_asking();

  // expire gives up look-ups that have had their time and tells when to call it
  // next. wake_up tells of every other change.
  Deadline expire() { return look_ups_->expire(); }

  // take_fresh gives the rows that came to be known since the last call.
  std::vector<Row> take_fresh();

  Standing standing();

  // close ends the run: what is not known by now is a timeout, and stays one.
  void close();

  // rows gives all rows after close: by server, address, agent. remarks tells
  // what did not go well besides.
  std::vector<Row> rows();
  std::vector<std::string> remarks();

 private:
  enum class State { kLookingUp, kQueued, kAsking, kDone };

  // Job is one row on its way.
  struct Job {
    std::size_t server = 0;
    std::size_t agent = 0;
    std::size_t position = 0;  // of the address among those of the name
    State state = State::kLookingUp;
    Ipv4Address address{};
    std::chrono::steady_clock::duration spent{};  // on the look-up
    std::chrono::steady_clock::time_point asked;
    Row row;
  };

  void add_jobs(std::size_t server);
  Job& add_job(std::size_t server, std::size_t agent, std::size_t position);
  void find_address(std::size_t server);
  void take_found(std::size_t name, const Found& found);
  void take_addresses(std::size_t server, const Found& found);
  void take_scanned(const Scanned& scanned);
  void queue(std::size_t job, const Ipv4Address& address, double seconds);
  void ask(std::size_t job);
  void settle(Job& job, Result result, const char* text);
  const char* text_of_unknown(const Job& job) const;

  std::mutex mutex_;  // guards all that follows
  Plan plan_;
  const Settings settings_;
  std::deque<Job> jobs_;
  std::vector<std::size_t> first_job_;  // of each server, one an agent
  // Names to look up: their numbers, and the servers of each.
  std::map<std::string, std::size_t> number_of_name_;
  std::vector<std::vector<std::size_t>> servers_of_name_;
  std::set<std::string> scans_;  // that go on, by interface
  std::vector<const Job*> fresh_;
  std::vector<std::string> remarks_;
  std::size_t num_asked_ = 0;
  std::size_t num_done_ = 0;
  std::size_t num_asking_ = 0;
  bool closed_ = false;
  std::shared_ptr<Pool> pool_;
  std::shared_ptr<LookUps> look_ups_;
};

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_RUN_H_
