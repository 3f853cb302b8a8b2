// The one bounded wait under everything that waits on a descriptor.
#ifndef VELPROBE_NET_WAIT_H_
#define VELPROBE_NET_WAIT_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "../util/deadline.h"

#pragma GCC visibility push(default)
namespace velprobe {

enum class WaitFor { kReadable, kWritable };

// What a signal does to the wait: restart it with the time that is left, or
// end it as an error (EINTR).
enum class OnSignal { kRestart, kReport };

enum class WaitResult { kReady, kTimeout, kError };

// wait_for_socket waits until the socket is ready, at most so many seconds and
// not beyond the deadline; once either has passed it still looks once. A socket
// whose connection broke or whose peer closed counts as ready: the next call on
// it tells. On kError errno tells why; EBADF for a descriptor that is not open.
WaitResult wait_for_socket(std::int32_t socket, WaitFor what, int seconds,
                           OnSignal on_signal, Deadline deadline = kNoDeadline);

// wait_for_any waits in the same way for any of several sockets. On kReady
// out_first is the index of the first ready one; else it is left alone. The
// error ENOMEM joins those above.
WaitResult wait_for_any(std::span<const std::int32_t> sockets, WaitFor what,
                        int seconds, OnSignal on_signal, std::size_t& out_first,
                        Deadline deadline = kNoDeadline);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_WAIT_H_
