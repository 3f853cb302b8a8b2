// One session of velstandin with one client.
#ifndef VELPROBE_STANDIN_SESSION_H_
#define VELPROBE_STANDIN_SESSION_H_

#include <array>
#include <cstdint>

#include "answer.h"
#include "net/address.h"
#include "nodes.h"
#include "protocol/ber_stream.h"
#include "protocol/messages.h"
#include "session_pool.h"
#include "trouble.h"
#include "util/deadline.h"
#include "util/error_text.h"

namespace velprobe::standin {

enum class Answer { kNone, kOffer, kRefusal, kOther };

// SessionRecord is what has happened so far, for the log.
struct SessionRecord {
  Ipv4Address peer{};
  std::uint16_t port = 0;
  Deadline begin{};
  Deadline finish{};
  bool has_version = false;
  client_wants wants;
  bool has_request = false;
  client_private_key identity;  // without a name for other kinds of client
  const TroubleKind* trouble = nullptr;
  Answer answer = Answer::kNone;
  AnswerPlan plan;  // of an offer or a refusal
  Text own_reason;  // under plan.reason when this agent has one
  std::array<char, kErrorTextSize> end{};
};

// Conversation is a session as it goes on.
struct Conversation {
  BerStream& stream;
  std::int32_t socket;  // under the stream; -1: none
  Deadline deadline;
  Seat* seat;  // null: nobody cuts it off, and pauses take no time
  SessionRecord& record;
};

// SessionRules say how clients are served.
struct SessionRules {
  AnswerPlan answer;
  TroubleMix troubles;
  std::uint32_t limit_seconds = 10;
};

// converse reads the client's request, answers it and waits for the
// acknowledgement. chosen is the trouble whose turn it is, or null; a trouble
// of the agent's own goes before it. Fails with the texts of the stream, the
// readers and the writers, and with "went on after the refusal" and
// "client_wants holds no known authentication element".
ErrorText converse(Conversation& conversation, const SessionRules& rules,
                   const Trouble* chosen, NodeRegister& nodes);

// serve_session converses with a client, at most as long as the rules allow
// whatever it does, and fills in the record.
void serve_session(Seat& seat, Client client, const SessionRules& rules,
                   NodeRegister& nodes, SessionRecord& out_record);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_SESSION_H_
