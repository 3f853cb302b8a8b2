// Failure as a value: ErrorText, the formatter that makes its texts, and the
// system's own error texts.
#ifndef VELPROBE_UTIL_ERROR_TEXT_H_
#define VELPROBE_UTIL_ERROR_TEXT_H_

#include <cerrno>
#include <cstddef>

#pragma GCC visibility push(default)
namespace velprobe {

// ErrorText is the result of an operation that can fail: empty on success, else
// a text that describes the failure from the outside in. It is true when there
// is a failure, so the usual line reads
//
//   if (ErrorText error = write_tag(stream, tag)) return error;
//
// It borrows its text: a literal lives forever, a text of format_error_text
// until the same thread has formed two further texts. Whoever keeps one longer
// copies it.
//
// The error number beside the text is for programs, the text for people: a
// number of errno where the system, a time limit or the peer's hanging up is
// behind the failure, 0 where the contents are. It survives every wrapping, so
// nobody has to compare texts.
class [[nodiscard]] ErrorText {
 public:
  constexpr ErrorText() = default;
  // Implicit, so that a function can return a literal or a formatted text.
  constexpr ErrorText(const char* text, int error_number = 0)
      : text_(text), error_number_(error_number) {}

  constexpr explicit operator bool() const { return text_ != nullptr; }

  // c_str gives the text, or null on success.
  constexpr const char* c_str() const { return text_; }

  // error_number gives ETIMEDOUT at a time limit, ECONNRESET or EPIPE when the
  // peer has gone, ENOMEM for a shortage of memory, else the number of the
  // system call that failed; 0 on success and when no such thing is the cause.
  constexpr int error_number() const { return error_number_; }

  // wrapped is the same failure under a text that tells more.
  constexpr ErrorText wrapped(const char* text) const {
    return {text, error_number_};
  }

 private:
  const char* text_ = nullptr;
  int error_number_ = 0;
};

// The size of each of format_error_text's two buffers: a text holds one
// character less.
inline constexpr std::size_t kErrorTextSize = 256;

// The text for a shortage of memory, but where a room has its own, and the
// failure with it.
inline constexpr char kOutOfMemory[] = "Out of memory";
inline constexpr ErrorText kNoMemory{kOutOfMemory, ENOMEM};

// format_error_text formats as printf does into one of the calling thread's two
// buffers, used in turn, cut at 255 characters. The text stays valid across
// exactly one further call in that thread, so one text can embed the one formed
// just before it. Never null.
[[nodiscard]] [[gnu::format(printf, 1, 2)]] const char* format_error_text(
    const char* format, ...);

// take_last_os_error returns errno and resets it to 0, so that nobody later
// mistakes it for news.
int take_last_os_error();

// last_os_error_text gives the system's text for take_last_os_error().
[[nodiscard]] const char* last_os_error_text();

// os_failure is the failure "what: the system's text" with the number of
// take_last_os_error().
ErrorText os_failure(const char* what);

// os_error_text gives the system's text for one error number (strerror): valid
// until the thread's next call for an unknown number.
[[nodiscard]] const char* os_error_text(int error_number);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_ERROR_TEXT_H_
