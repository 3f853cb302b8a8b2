// What a client is answered, and how that is written.
#ifndef VELPROBE_STANDIN_ANSWER_H_
#define VELPROBE_STANDIN_ANSWER_H_

#include <cstddef>
#include <cstdint>

#include "probe/check_in_probe.h"
#include "protocol/ber_stream.h"
#include "util/error_text.h"

namespace velprobe::standin {

// Limits of the protocol, in bytes.
inline constexpr std::size_t kLongestName = 256;
inline constexpr std::size_t kLongestReason = 1024;

// Authentication is one kind of server authentication element.
struct Authentication {
  const char* name;
  ErrorText (*write)(BerStream& stream);
};

// find_authentication gives the kind of that name, or null. The kinds are
// "private-key", "password" and "none".
const Authentication* find_authentication(const char* name);

// AnswerPlan is an answer before it is written.
struct AnswerPlan {
  bool is_accepted = true;
  std::uint16_t version = kProtocolVersion;
  const Authentication* authentication = find_authentication("private-key");
  const char* reason = "This agent is not expected here";
  std::uint16_t client_version = kProtocolVersion;
};

// write_answer writes the offer or the refusal; the texts of the writers.
ErrorText write_answer(BerStream& stream, const AnswerPlan& plan);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_ANSWER_H_
