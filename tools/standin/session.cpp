#include "session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "net/resolver.h"
#include "protocol/ber_codec.h"
#include "protocol/messages.h"
#include "protocol/socket_stream.h"
#include "signals.h"
#include "util/printable_text.h"
#include "util/text.h"

namespace velprobe {

namespace {

ErrorText write_private_key(BerStream& stream) {
  server_private_key key;
  key.hasMasterKey = 1;
  key.hasHallmark = 1;
  return write_server_private_key(stream, key);
}

constexpr Authentication kAuthentications[] = {
    {"private-key", write_private_key},
    {"password", write_server_password},
    {"none", write_server_no_auth},
};

enum class Answer { kNone, kOffer, kRefusal };

// Session is what has happened so far.
struct Session {
  bool has_version = false;
  client_wants wants;
  client_private_key identity;  // without a name for other kinds of client
  Answer answer = Answer::kNone;
  const char* end = "";
};

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

ErrorText read_request(BerStream& stream, Session& session) {
  if (ErrorText error =
          read_client_wants_incomplete(stream, session.wants, 0)) {
    return error;
  }
  session.has_version = true;
  if (ErrorText error = read_identity(stream, session.identity)) return error;
  return skip_to_eol(stream);
}

bool is_accepted(const char* name, const AnswerPolicy& policy) {
  const auto is_named = [name](const char* node) {
    return name != nullptr && std::strcmp(name, node) == 0;
  };
  return policy.nodes.empty() ||
         std::any_of(policy.nodes.begin(), policy.nodes.end(), is_named);
}

ErrorText write_offer(BerStream& stream, const AnswerPolicy& policy) {
  server_offers offers;
  offers.version = policy.version;
  if (ErrorText error = write_server_offers(stream, offers)) return error;
  if (ErrorText error = policy.authentication->write(stream)) return error;
  return write_end_of_contents(stream);
}

ErrorText write_refusal(BerStream& stream, const AnswerPolicy& policy) {
  negotiate_nack refusal;
  refusal.reason = copy_text(policy.reason);
  if (!refusal.reason) return kOutOfMemory;
  return write_negotiate_nack(stream, refusal);
}

ErrorText answer_request(BerStream& stream, Session& session,
                         const AnswerPolicy& policy) {
  const bool accepted = is_accepted(session.identity.name.get(), policy);
  if (ErrorText error = accepted ? write_offer(stream, policy)
                                 : write_refusal(stream, policy)) {
    return error;
  }
  // From here on the client may have the answer, whatever the flush says.
  session.answer = accepted ? Answer::kOffer : Answer::kRefusal;
  return stream.operations.flush(&stream);
}

// await_acknowledgement reads what follows the answer: an acknowledgement, or
// nothing more at all, which is an error here as everywhere.
ErrorText await_acknowledgement(BerStream& stream, Session& session) {
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (session.answer == Answer::kRefusal) return "went on after the refusal";
  if (ErrorText error = read_negotiate_ack(stream, tag)) return error;
  session.end = "acknowledged";
  return {};
}

ErrorText converse(BerStream& stream, Session& session,
                   const AnswerPolicy& policy) {
  if (ErrorText error = read_request(stream, session)) return error;
  if (ErrorText error = answer_request(stream, session, policy)) return error;
  return await_acknowledgement(stream, session);
}

// end_text says in the words of an administrator how a conversation failed.
const char* end_text(const SessionLimit& limit, const Session& session,
                     ErrorText failure) {
  if (limit.cut_reason() != nullptr) return limit.cut_reason();
  const bool hung_up = std::strcmp(failure.c_str(), kPeerClosed.c_str()) == 0;
  if (hung_up && session.answer == Answer::kRefusal) return "hung up";
  if (hung_up && session.answer == Answer::kOffer) {
    return "hung up without acknowledging";
  }
  return failure.c_str();
}

// print_quoted keeps one line one line, whatever the text holds.
void print_quoted(const char* label, const char* text) {
  const Text printable = copy_text(text != nullptr ? text : "");
  if (printable) replace_control_bytes(printable.get());
  std::printf("%s\"%s\"", label, printable ? printable.get() : "");
}

void print_request(const Session& session) {
  if (!session.has_version) {
    std::printf("no request");
    return;
  }
  std::printf("version 0x%04X", static_cast<unsigned>(session.wants.version));
  print_quoted(", name ", session.identity.name.get());
  print_quoted(", domain ", session.identity.domain.get());
}

void print_answer(const Session& session, const AnswerPolicy& policy) {
  switch (session.answer) {
    case Answer::kNone:
      std::printf("not answered");
      break;
    case Answer::kOffer:
      std::printf("offered version 0x%04X, %s", policy.version,
                  policy.authentication->name);
      break;
    case Answer::kRefusal:
      print_quoted("refused: ", policy.reason);
      break;
  }
}

void print_line(const Client& client, const Session& session,
                const AnswerPolicy& policy) {
  std::printf("%s:%u: ", address_text(client.address), client.port);
  print_request(session);
  std::printf("; ");
  print_answer(session, policy);
  std::printf("; %s\n", session.end);
  std::fflush(stdout);
}

}  // namespace

const Authentication* find_authentication(const char* name) {
  for (const Authentication& each : kAuthentications) {
    if (std::strcmp(each.name, name) == 0) return &each;
  }
  return nullptr;
}

void serve_session(Client client, const AnswerPolicy& policy) {
  Session session;
  BerStreamPtr stream;
  if (ErrorText error = socket_stream_adopt(stream, client.socket.get())) {
    session.end = error.c_str();
  } else {
    const int socket = client.socket.release();  // the stream's now
    const SessionLimit limit(socket);
    if (ErrorText failure = converse(*stream, session, policy)) {
      session.end = end_text(limit, session, failure);
    }
  }
  print_line(client, session, policy);
}

}  // namespace velprobe
