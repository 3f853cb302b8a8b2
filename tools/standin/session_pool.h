// The threads that serve sessions, a bounded number side by side.
#ifndef VELPROBE_STANDIN_SESSION_POOL_H_
#define VELPROBE_STANDIN_SESSION_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "net/address.h"
#include "thread.h"
#include "util/deadline.h"
#include "util/error_text.h"
#include "util/owners.h"

namespace velprobe::standin {

class SessionPool;

// Client is an accepted connection; number counts them.
struct Client {
  FileDescriptor socket;
  Ipv4Address address{};
  std::uint16_t port = 0;
  std::uint64_t number = 0;
};

// Seat is where one client at a time is served, by a thread of its own. The
// thread that accepts clients can cut a session off: the socket under it is
// then shut down, so that whatever reads, writes or pauses there ends.
class Seat {
 public:
  // watch lets a session on this socket be cut off from now on, unwatch no
  // more; unwatch comes before the socket is closed.
  void watch(std::int32_t socket);
  void unwatch();
  // has_spoken says that something has come from the client, has_asked that its
  // request is complete: the session no longer gives way to others, until
  // has_answer says that it awaits the acknowledgement.
  void has_spoken();
  void has_asked();
  void has_answer();
  // pause_until sleeps; false when the session was cut off.
  bool pause_until(Deadline time);
  // cut_reason tells why the session was cut off, or null.
  const char* cut_reason();

 private:
  friend class SessionPool;

  SessionPool* pool_ = nullptr;
  Thread thread_;
  // What follows is shared, under the pool's mutex.
  std::condition_variable change_;
  Client client_;
  bool is_taken_ = false;
  std::int32_t socket_ = -1;
  // From then on to others, and to those where most have not said a word.
  Deadline gives_way_ = kNoDeadline;
  Deadline gives_way_in_crowd_ = kNoDeadline;
  const char* cut_reason_ = nullptr;
};

// SessionPool has a fixed number of seats. Threads start as they are needed and
// stay. All but the seats' functions are for one thread.
class SessionPool {
 public:
  using Serve = void (*)(void* context, Seat& seat, Client client);

  SessionPool() = default;
  SessionPool(const SessionPool&) = delete;
  SessionPool& operator=(const SessionPool&) = delete;
  // Cuts off what still runs and waits for it.
  ~SessionPool();

  // open makes the seats; each client will be handed to serve, in a thread of
  // its own. bell becomes readable whenever a seat was freed that somebody
  // waited for.
  //   "not enough memory", "Error creating event descriptor: %s"
  ErrorText open(std::size_t num_seats, Serve serve, void* context);
  std::int32_t bell() const { return bell_.get(); }
  void silence_bell();
  // For any thread.
  void ring_bell();

  // find_seat gives a free seat with its thread, or null: the bell then rings
  // when one is free.
  //   "Error starting thread: %s"
  ErrorText find_seat(Seat*& out_seat);
  // seat hands a client to a seat of find_seat.
  void seat(Seat& seat, Client client);

  // make_room cuts off the session that is due first to give way, if it is and
  // nothing of it has arrived unread. Else it tells when to ask again:
  // kNoDeadline if the bell will tell.
  Deadline make_room();

  // ask_for_bell makes the bell ring at the next end of a session. For any
  // thread.
  void ask_for_bell();
  void cut_all(const char* reason);
  // is_idle tells whether nobody is served; if not, the bell will ring.
  bool is_idle();

 private:
  friend class Seat;

  static void* run_seat(void* seat);
  void serve_clients(Seat& seat);
  bool await_client(Seat& seat, Client& out_client);
  void cut(Seat& seat, const char* reason);
  static bool is_silent(const Seat& seat);
  // is_crowded tells whether half the clients have not said a word for a while.
  bool is_crowded(Deadline now);
  void vacate(Seat& seat);
  std::span<Seat> seats() { return {seats_.get(), num_seats_}; }

  Serve serve_ = nullptr;
  void* context_ = nullptr;
  FileDescriptor bell_;
  std::unique_ptr<Seat[]> seats_;
  std::size_t num_seats_ = 0;
  std::mutex mutex_;
  // Under the mutex.
  std::size_t num_taken_ = 0;
  bool is_waited_for_ = false;
  bool is_closing_ = false;
};

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_SESSION_POOL_H_
