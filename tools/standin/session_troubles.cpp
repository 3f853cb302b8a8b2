#include "session_troubles.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

#include "net/tcp.h"
#include "session.h"
#include "util/text.h"

namespace velprobe::standin {

namespace {

using std::string_view;

// Every message ends with an end-of-contents.
constexpr std::size_t kEndSize = 2;

bool is_word(const Trouble& trouble, const char* word) {
  return std::strcmp(trouble.text.get(), word) == 0;
}

Answer planned(const Conversation& conversation) {
  return conversation.record.plan.is_accepted ? Answer::kOffer
                                              : Answer::kRefusal;
}

ErrorText write(Conversation& conversation, string_view bytes) {
  BerStream& stream = conversation.stream;
  return stream.operations.write(&stream, bytes.data(), bytes.size());
}

ErrorText flush(Conversation& conversation) {
  return conversation.stream.operations.flush(&conversation.stream);
}

ErrorText send(Conversation& conversation, string_view bytes, Answer as) {
  if (ErrorText error = write(conversation, bytes)) return error;
  conversation.record.answer = as;
  return flush(conversation);
}

// write_many writes a pair of bytes, or two equal ones, count bytes in all.
ErrorText write_many(Conversation& conversation, const char (&pair)[3],
                     std::uint64_t count) {
  std::array<char, 4096> piece;
  for (std::size_t i = 0; i < piece.size(); ++i) piece[i] = pair[i % 2];
  while (count > 0) {
    const std::size_t size = std::min<std::uint64_t>(count, piece.size());
    if (ErrorText error = write(conversation, {piece.data(), size})) {
      return error;
    }
    count -= size;
  }
  return {};
}

ErrorText pause(Conversation& conversation, std::uint32_t milliseconds) {
  const Deadline time = std::min(std::chrono::steady_clock::now() +
                                     std::chrono::milliseconds(milliseconds),
                                 conversation.deadline);
  Seat* const seat = conversation.seat;
  const bool is_whole = seat == nullptr || seat->pause_until(time);
  if (is_whole && !is_past(conversation.deadline)) return {};
  return {"cut off: time is up", ETIMEDOUT};
}

// hear_out reads until the client closes.
ErrorText hear_out(Conversation& conversation) {
  std::array<char, 4096> waste;
  for (std::size_t received = 1; received > 0;) {
    if (ErrorText error =
            socket_recv(conversation.socket, waste.data(), waste.size(),
                        received, conversation.deadline)) {
      return error;
    }
  }
  return kPeerClosed;
}

void note_end(Conversation& conversation, const char* text) {
  auto& end = conversation.record.end;
  copy_bounded(end.data(), text, end.size());
}

// close_gently lets the client find the end, and nothing else: to close with
// something unread would reset the connection.
ErrorText close_gently(Conversation& conversation) {
  note_end(conversation, "closed");
  ::shutdown(conversation.socket, SHUT_WR);
  static_cast<void>(hear_out(conversation));
  return {};
}

// reset_now tears the connection down: for the system, to connect to no
// address at all means that (RFC 9293, ABORT), without an end sent before.
ErrorText reset_now(Conversation& conversation) {
  note_end(conversation, "reset");
  sockaddr nowhere{};
  nowhere.sa_family = AF_UNSPEC;
  static_cast<void>(::connect(conversation.socket, &nowhere, sizeof nowhere));
  return {};
}

}  // namespace

void offer_next_major(AnswerPlan& answer, const Trouble&) {
  answer.version = static_cast<std::uint16_t>(answer.client_version + 0x0100);
}

void offer_next_minor(AnswerPlan& answer, const Trouble&) {
  const std::uint16_t version = answer.client_version;
  answer.version = static_cast<std::uint16_t>(
      (version & 0xFF00) | std::min((version & 0xFF) + 1, 0xFF));
}

void offer_authentication(AnswerPlan& answer, const Trouble& trouble) {
  answer.authentication = find_authentication(trouble.text.get());
}

void refuse(AnswerPlan& answer, const Trouble& trouble) {
  answer.is_accepted = false;
  if (trouble.text) answer.reason = trouble.text.get();
}

void refuse_with_escapes(AnswerPlan& answer, const Trouble&) {
  answer.is_accepted = false;
  // Clear the screen, set the title, go red, ring, begin a new line, erase it
  // by an 8-bit sequence, and write from right to left.
  answer.reason =
      "\033[2J\033]0;title\007\033[31mred\033[0m\015\012fine\302\2332K\u202E";
}

ErrorText stay_silent(Conversation& conversation, const Trouble&, string_view) {
  return hear_out(conversation);
}

ErrorText answer_slowly(Conversation& conversation, const Trouble& trouble,
                        string_view answer) {
  // Else a byte would wait until the one before is acknowledged.
  static_cast<void>(
      socket_apply_flags(conversation.socket,
                         CONNECT_NONBLOCKING | CONNECT_NODELAY | CONNECT_CORK));
  for (std::size_t i = 0; i < answer.size(); ++i) {
    if (ErrorText error = pause(conversation, trouble.number)) return error;
    if (ErrorText error =
            send(conversation, answer.substr(i, 1), planned(conversation))) {
      return error;
    }
  }
  return {};
}

ErrorText answer_late(Conversation& conversation, const Trouble& trouble,
                      string_view answer) {
  if (ErrorText error = pause(conversation, trouble.number)) return error;
  return send(conversation, answer, planned(conversation));
}

ErrorText close_unanswered(Conversation& conversation, const Trouble&,
                           string_view) {
  return close_gently(conversation);
}

ErrorText reset_unanswered(Conversation& conversation, const Trouble&,
                           string_view) {
  return reset_now(conversation);
}

ErrorText answer_by_half(Conversation& conversation, const Trouble& trouble,
                         string_view answer) {
  if (ErrorText error = send(conversation, answer.substr(0, answer.size() / 2),
                             Answer::kOther)) {
    return error;
  }
  return is_word(trouble, "reset") ? reset_now(conversation)
                                   : close_gently(conversation);
}

ErrorText answer_garbage(Conversation& conversation, const Trouble&,
                         string_view) {
  std::array<char, 64> bytes;
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return send(conversation, {bytes.data(), bytes.size()}, Answer::kOther);
}

ErrorText greet(Conversation& conversation, const Trouble& trouble,
                string_view) {
  const char* greeting = "SSH-2.0-server\r\n";
  if (is_word(trouble, "smtp")) greeting = "220 mail.example.org ESMTP\r\n";
  if (is_word(trouble, "http")) {
    greeting = "HTTP/1.0 400 Bad Request\r\n";
  }
  return send(conversation, greeting, Answer::kOther);
}

ErrorText answer_endlessly(Conversation& conversation, const Trouble&,
                           string_view answer) {
  answer.remove_suffix(kEndSize);
  if (ErrorText error = send(conversation, answer, Answer::kOther)) {
    return error;
  }
  // Values that a newer server might have added: null after null, often enough
  // that no single wait is long, and no more than spares the processors.
  for (;;) {
    if (ErrorText error = write_many(conversation, {5, 0, 0}, 1024)) {
      return error;
    }
    if (ErrorText error = flush(conversation)) return error;
    if (ErrorText error = pause(conversation, 10)) return error;
  }
}

ErrorText answer_with_depth(Conversation& conversation, const Trouble& trouble,
                            string_view answer) {
  const string_view end = answer.substr(answer.size() - kEndSize);
  answer.remove_suffix(kEndSize);
  const std::uint64_t size = std::uint64_t{trouble.number} * 2;
  if (ErrorText error = write(conversation, answer)) return error;
  // An indefinite length each, and an end.
  if (ErrorText error = write_many(conversation, "\x30\x80", size)) {
    return error;
  }
  if (ErrorText error = write_many(conversation, {0, 0, 0}, size)) return error;
  return send(conversation, end, planned(conversation));
}

ErrorText answer_after_filler(Conversation& conversation,
                              const Trouble& trouble, string_view answer) {
  if (ErrorText error = write_many(conversation, "\x19\x19", trouble.number)) {
    return error;
  }
  return send(conversation, answer, planned(conversation));
}

}  // namespace velprobe::standin
