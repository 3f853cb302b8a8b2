// Clients for scripts/load_standin.sh, all on loopback.
//
//   standin_load rate PORT SECONDS        whole sessions, four clients
//   standin_load distant PORT SECONDS     32 clients, 5 ms away
//   standin_load silent PORT COUNT        good ones beside COUNT silent clients
//   standin_load hostile PORT SECONDS     every kind of bad client at once
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "net/tcp.h"
#include "probe/check_in_probe.h"
#include "util/deadline.h"
#include "util/owners.h"

namespace velprobe {
namespace {

using Clock = std::chrono::steady_clock;

constexpr Ipv4Address kLoopback{127, 0, 0, 1};
const std::string kRequest(
    "\x60\x80\x02\x02\x02\x02\xA1\x80\x04\x01\x61\x04\x00\x04\x00\x01\x01\x01"
    "\x01\x01\x01\x01\x01\x01\x00\x00\x00\x00",
    28);
const std::string kAcknowledgement("\x62\x80\x00\x00", 4);

FileDescriptor connect_to(std::uint16_t port) {
  std::int32_t socket = -1;
  if (socket_connect(kLoopback, port, socket, 0)) return {};
  return FileDescriptor(socket);
}

void say(const FileDescriptor& socket, const std::string& bytes) {
  static_cast<void>(
      ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

// hear_out gives the number of bytes up to the end.
std::size_t hear_out(const FileDescriptor& socket) {
  char buffer[4096];
  std::size_t total = 0;
  for (ssize_t count;
       (count = ::recv(socket.get(), buffer, sizeof buffer, 0)) > 0;) {
    total += static_cast<std::size_t>(count);
  }
  return total;
}

// one_session leaves the closing to the server, which keeps the waiting ports
// on its side.
bool one_session(std::uint16_t port, std::chrono::milliseconds distance) {
  const FileDescriptor socket = connect_to(port);
  if (!socket) return false;
  say(socket, kRequest);
  char offer[32];
  if (::recv(socket.get(), offer, sizeof offer, 0) <= 0) return false;
  if (distance.count() > 0) std::this_thread::sleep_for(distance);
  say(socket, kAcknowledgement);
  return hear_out(socket) == 0;
}

template <typename Work>
void run_threads(int count, Work work) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

int measure_rate(std::uint16_t port, int seconds, int num_clients,
                 std::chrono::milliseconds distance) {
  std::atomic<long> num_good{0}, num_bad{0};
  const Deadline end = Clock::now() + std::chrono::seconds(seconds);
  run_threads(num_clients, [&](int) {
    while (!is_past(end)) ++(one_session(port, distance) ? num_good : num_bad);
  });
  std::printf("%ld\n", num_good / seconds);
  if (num_bad == 0) return EXIT_SUCCESS;
  std::fprintf(stderr, "%ld sessions failed\n", num_bad.load());
  return EXIT_FAILURE;
}

bool probe_is_good(std::uint16_t port, int seconds) {
  ProbeResult result;
  ProbeOptions options;
  options.agent_name = "good";
  options.deadline = Clock::now() + std::chrono::seconds(seconds);
  const ErrorText error = probe_server("127.0.0.1", port, options, result);
  if (error) std::fprintf(stderr, "a good client: %s\n", error.c_str());
  return !error;
}

// Milliseconds of a good session beside silent clients: median and most of 20.
int measure_silent(std::uint16_t port, int count) {
  std::vector<FileDescriptor> silent;
  for (int i = 0; i < count; ++i) silent.push_back(connect_to(port));
  std::vector<double> times;
  for (int i = 0; i < 20; ++i) {
    const auto begin = Clock::now();
    if (!probe_is_good(port, 60)) return EXIT_FAILURE;
    const std::chrono::duration<double, std::milli> time = Clock::now() - begin;
    times.push_back(time.count());
  }
  std::sort(times.begin(), times.end());
  std::printf("median %.1f ms, most %.1f ms\n", times[times.size() / 2],
              times.back());
  return EXIT_SUCCESS;
}

void reset(const FileDescriptor& socket) {
  const linger at_once{1, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void drip(const FileDescriptor& socket, const std::string& bytes) {
  for (const char byte : bytes) {
    say(socket, std::string(1, byte));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// speak_badly says what the turn chooses; true when the client then leaves
// without hearing the server out.
bool speak_badly(const FileDescriptor& socket, unsigned turn) {
  const std::string open = kRequest.substr(0, kRequest.size() - 2);
  switch (turn % 8) {
    case 0:
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      return true;
    case 1:
      say(socket, kRequest.substr(0, turn / 8 % kRequest.size()));
      return true;
    case 2:
      say(socket, std::string(64, static_cast<char>(turn)));
      reset(socket);
      return true;
    case 3:
      drip(socket, kRequest + kAcknowledgement);
      break;
    case 4: {  // nested lists without an end
      std::string deep = open;
      for (int i = 0; i < 100000; ++i) deep += "\x30\x80";
      say(socket, deep);
      break;
    }
    case 5:
      say(socket, kRequest + std::string(100000, '\x19') + kAcknowledgement);
      break;
    case 6:  // a name with everything that a log must not show
      say(socket, std::string("\x60\x80\x02\x02\x02\x02\xA1\x80\x04\x08\033"
                              "\"\\\n\xE2\x80\xAE\xFF"));
      break;
    case 7:
      say(socket, kRequest);
      reset(socket);
      return true;
  }
  return false;
}

void be_bad(std::uint16_t port, unsigned turn) {
  const FileDescriptor socket = connect_to(port);
  if (!socket || speak_badly(socket, turn)) return;
  const timeval patience{5, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience,
               sizeof patience);
  ::shutdown(socket.get(), SHUT_WR);
  hear_out(socket);
}

int be_hostile(std::uint16_t port, int seconds) {
  std::atomic<long> num_bad{0}, num_accepted{0}, num_failed{0};
  const Deadline end = Clock::now() + std::chrono::seconds(seconds);
  run_threads(16, [&](int thread) {
    for (auto turn = static_cast<unsigned>(thread); !is_past(end); ++turn) {
      if (thread > 1) {
        be_bad(port, turn);
        ++num_bad;
      } else {
        ++(probe_is_good(port, 60) ? num_accepted : num_failed);
      }
    }
  });
  std::printf("%ld bad clients, %ld good ones accepted, %ld not\n",
              num_bad.load(), num_accepted.load(), num_failed.load());
  return num_failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace velprobe

int main(int argc, char** argv) {
  using namespace velprobe;
  if (argc != 4 || start_socket_subsystem()) return EXIT_FAILURE;
  const std::string what = argv[1];
  const auto port = static_cast<std::uint16_t>(std::atoi(argv[2]));
  const int number = std::atoi(argv[3]);
  using std::chrono::milliseconds;
  if (what == "rate") return measure_rate(port, number, 4, milliseconds(0));
  if (what == "distant") return measure_rate(port, number, 32, milliseconds(5));
  if (what == "silent") return measure_silent(port, number);
  if (what == "hostile") return be_hostile(port, number);
  return EXIT_FAILURE;
}
