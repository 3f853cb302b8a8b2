// What velstandin tells on standard output.
#ifndef VELPROBE_STANDIN_LOG_H_
#define VELPROBE_STANDIN_LOG_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "line.h"
#include "net/address.h"
#include "nodes.h"
#include "session.h"
#include "util/error_text.h"

namespace velprobe::standin {

enum class LogForm { kText, kJsonLines };

// format_session adds what is told about one session: in text
//
//   PEER: REQUEST; ANSWER; END; N ms
//
// and in JSON the members of an object behind its time stamp.
void format_session(Line& line, LogForm form, const SessionRecord& record);

// Log writes whole lines, from any thread. For want of memory a line, or all
// agents of a summary, may be missing; standard error says so. After a failed
// write there are no more.
class Log {
 public:
  // open chooses the form. In text, time stamps go in front unless standard
  // output is a journal, which has its own.
  void open(LogForm form);

  // The first line of all; text has no time stamp there.
  //   "Out of memory", the text of failure
  ErrorText tell_listening(const Ipv4Address& address, std::uint16_t port);
  // tell_session also counts the session by its answer: a summary counts those
  // whose lines stand before it.
  void tell_session(const SessionRecord& record);
  // tell_summary tells the counts, then a line for each agent that came or was
  // to come. While it waits for a reader, the nodes are free.
  void tell_summary(NodeRegister& nodes);
  // failure tells why a line could not be written. It does not wait for one
  // that is being written.
  //   "Error writing the log: %s"
  ErrorText failure();

 private:
  void begin(Line& line, const char* event) const;
  void end(Line& line) const;
  // The caller holds the mutex.
  bool write(const Line& lines);
  void add_counts(Line& line) const;
  void add_node(Line& lines, const Node& node, bool is_restricted) const;

  LogForm form_ = LogForm::kText;
  bool is_stamped_ = true;
  std::mutex mutex_;
  std::array<std::uint64_t, 4> num_by_answer_{};  // under the mutex
  std::atomic<int> error_number_ = 0;
};

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_LOG_H_
