// Threads that nobody waits for.
#ifndef VELPROBE_CHECK_THREAD_H_
#define VELPROBE_CHECK_THREAD_H_

#include <cstddef>
#include <functional>

namespace velprobe::check {

// A conversation needs little stack; the C library's look-ups load whatever the
// system's configuration names, which may need more.
inline constexpr std::size_t kProbeStack = 96 * 1024;
inline constexpr std::size_t kLookUpStack = 512 * 1024;

// start_thread runs body in a detached thread that takes no signals: what body
// uses must be its own or shared, for nobody waits for its end. False when the
// system gives no thread.
[[nodiscard]] bool start_thread(std::size_t stack_size,
                                std::function<void()> body);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_THREAD_H_
