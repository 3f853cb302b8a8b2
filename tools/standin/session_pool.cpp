#include "session_pool.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "net/tcp.h"

namespace velprobe::standin {

namespace {

// Far above the way there and back to any agent, which has nothing to think
// over; and above the time after which a lost request is sent again.
constexpr std::chrono::seconds kPatience{1};
// Where half the clients have not sent a byte for so long, they do not mean to.
constexpr std::chrono::milliseconds kCrowdPatience{20};

using Lock = std::unique_lock<std::mutex>;

}  // namespace

void Seat::watch(std::int32_t socket) {
  const Lock lock(pool_->mutex_);
  socket_ = socket;
  // A stop may have come before there was a session to cut.
  if (cut_reason_ != nullptr) ::shutdown(socket_, SHUT_RDWR);
}

void Seat::unwatch() {
  const Lock lock(pool_->mutex_);
  socket_ = -1;
}

void Seat::has_spoken() {
  const Lock lock(pool_->mutex_);
  gives_way_in_crowd_ = kNoDeadline;
}

void Seat::has_asked() {
  const Lock lock(pool_->mutex_);
  gives_way_ = gives_way_in_crowd_ = kNoDeadline;
}

void Seat::has_answer() {
  const Lock lock(pool_->mutex_);
  gives_way_ = std::chrono::steady_clock::now() + kPatience;
}

bool Seat::pause_until(Deadline time) {
  Lock lock(pool_->mutex_);
  return !change_.wait_until(lock, time,
                             [this] { return cut_reason_ != nullptr; });
}

const char* Seat::cut_reason() {
  const Lock lock(pool_->mutex_);
  return cut_reason_;
}

SessionPool::~SessionPool() {
  cut_all("cut off: stopping");
  {
    const Lock lock(mutex_);
    is_closing_ = true;
    for (Seat& seat : seats()) seat.change_.notify_one();
  }
  for (Seat& seat : seats()) seat.thread_.join();
}

ErrorText SessionPool::open(std::size_t num_seats, Serve serve, void* context) {
  serve_ = serve;
  context_ = context;
  bell_ = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!bell_) return os_failure("Error creating event descriptor");
  seats_.reset(new (std::nothrow) Seat[num_seats]);
  if (!seats_) return "not enough memory";
  num_seats_ = num_seats;
  for (Seat& seat : seats()) seat.pool_ = this;
  return {};
}

void SessionPool::silence_bell() {
  std::uint64_t count;
  [[maybe_unused]] const ssize_t size =
      ::read(bell_.get(), &count, sizeof count);
}

void SessionPool::ring_bell() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t size = ::write(bell_.get(), &one, sizeof one);
}

void* SessionPool::run_seat(void* seat) {
  Seat& own = *static_cast<Seat*>(seat);
  own.pool_->serve_clients(own);
  return nullptr;
}

void SessionPool::serve_clients(Seat& seat) {
  Client client;
  while (await_client(seat, client)) {
    serve_(context_, seat, std::move(client));
    vacate(seat);
  }
}

bool SessionPool::await_client(Seat& seat, Client& out_client) {
  Lock lock(mutex_);
  seat.change_.wait(lock, [&] { return seat.client_.socket || is_closing_; });
  if (is_closing_) return false;
  out_client = std::move(seat.client_);
  return true;
}

void SessionPool::vacate(Seat& seat) {
  const Lock lock(mutex_);
  seat.is_taken_ = false;
  seat.gives_way_ = seat.gives_way_in_crowd_ = kNoDeadline;
  --num_taken_;
  if (std::exchange(is_waited_for_, false)) ring_bell();
}

ErrorText SessionPool::find_seat(Seat*& out_seat) {
  const Lock lock(mutex_);
  out_seat = nullptr;
  // The first free one, so that no more threads start than are needed.
  for (Seat& seat : seats()) {
    if (seat.is_taken_) continue;
    if (!seat.thread_) {
      if (ErrorText error = seat.thread_.start(run_seat, &seat)) return error;
    }
    out_seat = &seat;
    return {};
  }
  is_waited_for_ = true;
  return {};
}

void SessionPool::seat(Seat& seat, Client client) {
  const Lock lock(mutex_);
  seat.client_ = std::move(client);
  seat.is_taken_ = true;
  const Deadline now = std::chrono::steady_clock::now();
  seat.gives_way_ = now + kPatience;
  seat.gives_way_in_crowd_ = now + kCrowdPatience;
  seat.cut_reason_ = nullptr;
  ++num_taken_;
  seat.change_.notify_one();
}

bool SessionPool::is_silent(const Seat& seat) {
  return seat.socket_ >= 0 && !socket_wait_readable(seat.socket_, 0);
}

bool SessionPool::is_crowded(Deadline now) {
  const auto num_overdue =
      std::count_if(seats().begin(), seats().end(), [now](const Seat& seat) {
        return seat.gives_way_in_crowd_ <= now && is_silent(seat);
      });
  return 2 * static_cast<std::size_t>(num_overdue) >= num_taken_;
}

Deadline SessionPool::make_room() {
  const Lock lock(mutex_);
  const Deadline now = std::chrono::steady_clock::now();
  const bool in_crowd = is_crowded(now);
  const auto due = [in_crowd](const Seat& seat) {
    return in_crowd ? std::min(seat.gives_way_in_crowd_, seat.gives_way_)
                    : seat.gives_way_;
  };
  Deadline next = kNoDeadline;
  Seat* first = nullptr;
  for (Seat& seat : seats()) {
    if (seat.gives_way_ == kNoDeadline) continue;
    // One that was cut is on its way out already.
    if (seat.cut_reason_ != nullptr) return kNoDeadline;
    next = now + kCrowdPatience;
    const bool is_first = first == nullptr || due(seat) < due(*first);
    if (is_first && is_silent(seat)) first = &seat;
  }
  if (first == nullptr || now < due(*first)) return next;
  cut(*first, "cut off: made room");
  return kNoDeadline;
}

void SessionPool::ask_for_bell() {
  const Lock lock(mutex_);
  is_waited_for_ = true;
}

void SessionPool::cut(Seat& seat, const char* reason) {
  if (!seat.is_taken_ || seat.cut_reason_ != nullptr) return;
  seat.cut_reason_ = reason;
  if (seat.socket_ >= 0) ::shutdown(seat.socket_, SHUT_RDWR);
  seat.change_.notify_one();
}

void SessionPool::cut_all(const char* reason) {
  const Lock lock(mutex_);
  for (Seat& seat : seats()) cut(seat, reason);
}

bool SessionPool::is_idle() {
  const Lock lock(mutex_);
  is_waited_for_ = num_taken_ > 0;
  return num_taken_ == 0;
}

}  // namespace velprobe::standin
