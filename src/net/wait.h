// The one bounded wait under everything that waits on a descriptor.
#ifndef VELPROBE_NET_WAIT_H_
#define VELPROBE_NET_WAIT_H_

#include <cstddef>
#include <cstdint>
#include <span>

#pragma GCC visibility push(default)
namespace velprobe {

enum class WaitFor { kReadable, kWritable };

// What a signal does to the wait: restart it with the time that is left, or
// end it as an error (EINTR).
enum class OnSignal { kRestart, kReport };

enum class WaitResult { kReady, kTimeout, kError };

// fits_wait tells whether a descriptor can be waited on at all: select's sets
// end at FD_SETSIZE.
bool fits_wait(std::int32_t socket);

// wait_for_socket waits at most seconds (and no fraction) until the socket is
// ready. On kError errno tells why; a descriptor outside select's sets is
// EMFILE.
WaitResult wait_for_socket(std::int32_t socket, WaitFor what, int seconds,
                           OnSignal on_signal);

// wait_for_any waits in the same way for any of several sockets. On kReady
// out_first is the index of the first ready one.
WaitResult wait_for_any(std::span<const std::int32_t> sockets, WaitFor what,
                        int seconds, OnSignal on_signal,
                        std::size_t& out_first);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_WAIT_H_
