#include "session.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include "net/wait.h"
#include "protocol/ber_codec.h"
#include "protocol/memory_stream.h"
#include "protocol/socket_stream.h"
#include "util/text.h"

namespace velprobe::standin {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWaitSeconds = 86400;  // any will do: sessions have a deadline

ErrorText read_identity(BerStream& stream, client_private_key& identity) {
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  switch (tag) {
    case kTagOf_client_private_key:
      return read_client_private_key(stream, identity, tag);
    case kTagOf_client_password:
      return read_client_password(stream, tag);
    case kTagOf_client_no_auth:
      return read_client_no_auth(stream, tag);
    default:
      return "client_wants holds no known authentication element";
  }
}

// await_first_byte leaves all faults to the reading that follows.
void await_first_byte(const Conversation& conversation) {
  if (conversation.seat == nullptr) return;
  wait_for_socket(conversation.socket, WaitFor::kReadable, kWaitSeconds,
                  OnSignal::kRestart, conversation.deadline);
  conversation.seat->has_spoken();
}

ErrorText read_request(Conversation& conversation) {
  BerStream& stream = conversation.stream;
  SessionRecord& record = conversation.record;
  await_first_byte(conversation);
  if (ErrorText error = read_client_wants_incomplete(stream, record.wants, 0)) {
    return error;
  }
  record.has_version = true;
  if (ErrorText error = read_identity(stream, record.identity)) return error;
  if (ErrorText error = skip_to_eol(stream)) return error;
  record.has_request = true;
  if (conversation.seat != nullptr) conversation.seat->has_asked();
  return {};
}

ErrorText deliver_plainly(Conversation& conversation, std::string_view answer) {
  BerStream& stream = conversation.stream;
  if (ErrorText error =
          stream.operations.write(&stream, answer.data(), answer.size())) {
    return error;
  }
  // From here on the client may have the answer, whatever the flush says.
  conversation.record.answer =
      conversation.record.plan.is_accepted ? Answer::kOffer : Answer::kRefusal;
  return stream.operations.flush(&stream);
}

// deliver writes the answer into memory first: it leaves in one piece, or as
// the trouble has it.
ErrorText deliver(Conversation& conversation, const Trouble* trouble) {
  BerStreamPtr memory;
  if (ErrorText error = memory_stream_open(memory)) return error;
  if (ErrorText error = write_answer(*memory, conversation.record.plan)) {
    return error;
  }
  const std::string_view answer = memory_stream_bytes(*memory);
  if (trouble == nullptr || trouble->kind->deliver == nullptr) {
    return deliver_plainly(conversation, answer);
  }
  return trouble->kind->deliver(conversation, *trouble, answer);
}

// await_acknowledgement reads what follows the answer: an acknowledgement, or
// nothing more at all, which is an error here as everywhere. An
// end-of-contents (tag 0) is not handed on: the reader would take it for no
// tag at all.
ErrorText await_acknowledgement(Conversation& conversation) {
  BerStream& stream = conversation.stream;
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (conversation.record.answer == Answer::kRefusal) {
    return "went on after the refusal";
  }
  if (tag == BE_END_OF_CONTENTS) {
    return format_error_text("Wrong tag (%d) encountered in read_%s", 0,
                             "negotiate_ack");
  }
  if (ErrorText error = read_negotiate_ack(stream, tag)) return error;
  copy_bounded(conversation.record.end.data(), "acknowledged",
               conversation.record.end.size());
  return {};
}

// end_text says in the words of an administrator how a conversation failed.
const char* end_text(const SessionRecord& record, ErrorText failure) {
  const int number = failure.error_number();
  if (number == ETIMEDOUT) return "cut off: time is up";
  const bool hung_up = number == ECONNRESET || number == EPIPE;
  if (!hung_up || !record.has_request) return failure.c_str();
  return record.answer == Answer::kOffer ? "hung up without acknowledging"
                                         : "hung up";
}

void note_end(SessionRecord& record, const char* text) {
  copy_bounded(record.end.data(), text, record.end.size());
}

// bound_buffer keeps what a flood leaves to be read small: a session that is
// cut off reads on through all that had arrived.
void bound_buffer(std::int32_t socket) {
  constexpr int kBytes = 16 * 1024;
  ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kBytes, sizeof kBytes);
}

// serve_stream ends with the stream closed.
void serve_stream(Seat& seat, BerStreamPtr stream, Deadline deadline,
                  const SessionRules& rules, std::uint64_t number,
                  NodeRegister& nodes, SessionRecord& record) {
  const std::int32_t socket = socket_stream_handle(*stream);
  seat.watch(socket);
  Conversation conversation{*stream, socket, deadline, &seat, record};
  const ErrorText failure =
      converse(conversation, rules, pick(rules.troubles, number), nodes);
  if (failure) note_end(record, end_text(record, failure));
  // A session that had come to its end was not cut off any more.
  const char* cut = seat.cut_reason();
  if (failure && cut != nullptr) note_end(record, cut);
  seat.unwatch();
}

}  // namespace

ErrorText converse(Conversation& conversation, const SessionRules& rules,
                   const Trouble* chosen, NodeRegister& nodes) {
  SessionRecord& record = conversation.record;
  record.plan = rules.answer;
  if (chosen != nullptr) record.trouble = chosen->kind;
  if (chosen != nullptr && strikes_at_once(*chosen)) {
    return chosen->kind->deliver(conversation, *chosen, {});
  }
  record.trouble = nullptr;
  if (ErrorText error = read_request(conversation)) return error;

  Trouble own;
  if (ErrorText error = nodes.decide(record.identity.name.get(),
                                     record.plan.is_accepted, own)) {
    return error;
  }
  const Trouble* trouble = own.kind != nullptr ? &own : chosen;
  if (trouble != nullptr) {
    record.trouble = trouble->kind;
    record.plan.client_version =
        static_cast<std::uint16_t>(record.wants.version);
    if (trouble->kind->plan != nullptr) {
      trouble->kind->plan(record.plan, *trouble);
    }
  }
  const ErrorText error = deliver(conversation, trouble);
  // The log outlives the trouble of this agent.
  record.own_reason = std::move(own.text);
  if (error || record.end[0] != '\0') return error;
  if (conversation.seat != nullptr) conversation.seat->has_answer();
  return await_acknowledgement(conversation);
}

void serve_session(Seat& seat, Client client, const SessionRules& rules,
                   NodeRegister& nodes, SessionRecord& out_record) {
  out_record.begin = Clock::now();
  out_record.peer = client.address;
  out_record.port = client.port;
  const Deadline deadline =
      out_record.begin + std::chrono::seconds(rules.limit_seconds);
  bound_buffer(client.socket.get());
  BerStreamPtr stream;
  if (ErrorText error =
          socket_stream_adopt(stream, client.socket.get(), deadline)) {
    note_end(out_record, error.c_str());
  } else {
    client.socket.release();  // the stream's now
    serve_stream(seat, std::move(stream), deadline, rules, client.number, nodes,
                 out_record);
  }
  out_record.finish = Clock::now();
}

}  // namespace velprobe::standin
