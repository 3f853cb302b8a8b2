// The signals of velstandin: two that end it, and the alarm that ends a
// session.
#ifndef VELPROBE_STANDIN_SIGNALS_H_
#define VELPROBE_STANDIN_SIGNALS_H_

#include <cstdint>

#include "util/error_text.h"

namespace velprobe {

// Seconds that one session may take in all.
inline constexpr int kSessionSeconds = 10;

// watch_signals makes SIGINT and SIGTERM ask the program to stop, and SIGALRM
// cut the session off.
//   "Error creating pipe: %s", "Error opening /dev/null: %s",
//   "Error watching signals: %s"
ErrorText watch_signals();

// stop_descriptor becomes readable, for good, once a stop was asked for.
std::int32_t stop_descriptor();

// SessionLimit bounds one session while it lives: when the time is up, or a
// stop is asked for, the socket is closed and its descriptor stands at the end
// of an empty stream, so that whatever reads or waits there comes to an end.
class SessionLimit {
 public:
  explicit SessionLimit(std::int32_t socket);
  ~SessionLimit();
  SessionLimit(const SessionLimit&) = delete;
  SessionLimit& operator=(const SessionLimit&) = delete;

  // cut_reason tells why the session was cut off; null when it was not.
  const char* cut_reason() const;
};

}  // namespace velprobe

#endif  // VELPROBE_STANDIN_SIGNALS_H_
