#include "answer.h"

#include <cstring>

#include "protocol/ber_codec.h"
#include "protocol/messages.h"
#include "util/text.h"

namespace velprobe::standin {

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

ErrorText write_offer(BerStream& stream, const AnswerPlan& plan) {
  server_offers offers;
  offers.version = plan.version;
  if (ErrorText error = write_server_offers(stream, offers)) return error;
  if (ErrorText error = plan.authentication->write(stream)) return error;
  return write_end_of_contents(stream);
}

ErrorText write_refusal(BerStream& stream, const AnswerPlan& plan) {
  negotiate_nack refusal;
  refusal.reason = copy_text(plan.reason);
  if (!refusal.reason) return kOutOfMemory;
  return write_negotiate_nack(stream, refusal);
}

}  // namespace

const Authentication* find_authentication(const char* name) {
  for (const Authentication& each : kAuthentications) {
    if (std::strcmp(each.name, name) == 0) return &each;
  }
  return nullptr;
}

ErrorText write_answer(BerStream& stream, const AnswerPlan& plan) {
  return plan.is_accepted ? write_offer(stream, plan)
                          : write_refusal(stream, plan);
}

}  // namespace velprobe::standin
