// Trouble that velstandin makes when it is asked to.
#ifndef VELPROBE_STANDIN_TROUBLE_H_
#define VELPROBE_STANDIN_TROUBLE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "line.h"
#include "net/address.h"
#include "util/error_text.h"
#include "util/text.h"

namespace velprobe::standin {

struct AnswerPlan;
struct Conversation;
struct Responder;
struct Trouble;
struct UdpPeer;

enum class ArgumentForm {
  kNone,
  kWord,          // one of the words that the default lists
  kMilliseconds,  // shown as MS
  kCount,         // N
  kReason,        // REASON
  kAddress,       // ADDRESS
};

// TroubleKind is one row of the table of all kinds. What it does is one of the
// three functions, the others are null.
struct TroubleKind {
  const char* name;
  ArgumentForm form;
  // What stands for a missing argument; of words the first one, "|" between.
  const char* argument;
  const char* help;
  // plan changes the answer before it is written.
  void (*plan)(AnswerPlan& answer, const Trouble& trouble) = nullptr;
  // deliver sends, instead of the answer, what it makes of it.
  ErrorText (*deliver)(Conversation& conversation, const Trouble& trouble,
                       std::string_view answer) = nullptr;
  // respond answers a discovery query.
  void (*respond)(Responder& responder, const Trouble& trouble,
                  const UdpPeer& to) = nullptr;
};

std::span<const TroubleKind> trouble_kinds();

// add_usage adds a kind as it is written, "slow[:MS]", add_help its line of
// help with the default.
void add_usage(Line& line, const TroubleKind& kind);
void add_help(Line& line, const TroubleKind& kind);

// Trouble is one kind with its argument; without a kind all is well.
struct Trouble {
  const TroubleKind* kind = nullptr;
  std::uint32_t number = 0;  // milliseconds or count
  Ipv4Address address{};
  Text text;  // word or reason; null for the reason that everybody gets
};

// parse_trouble reads KIND[:ARGUMENT].
//   "unknown kind of trouble", "this trouble takes no argument",
//   "this trouble takes other words", "this trouble takes a number up to
//   86400000", "this trouble takes an IPv4 address", "a reason takes at most
//   1024 bytes", "Out of memory"
ErrorText parse_trouble(std::string_view text, Trouble& out);

// copy_trouble copies a trouble with what it owns.
//   "Out of memory"
ErrorText copy_trouble(const Trouble& from, Trouble& out);

// strikes_at_once tells whether a trouble does not wait for the request.
bool strikes_at_once(const Trouble& trouble);

// TroubleMix shares troubles out: each has so many of every hundred turns.
struct TroubleMix {
  struct Share {
    Trouble trouble;
    unsigned percent = 0;
  };
  std::array<Share, 32> shares;
  std::size_t num_shares = 0;
  unsigned percent = 0;  // in all
};

// add_share reads KIND[:ARGUMENT][:SHARE%], without a share all the turns that
// are left, into sessions or, for a kind of discovery, into queries.
//   the texts of parse_trouble, "a share is a number from 1% to 100%", "the
//   shares of all troubles exceed 100%"
ErrorText add_share(std::string_view text, TroubleMix& sessions,
                    TroubleMix& queries);

// pick gives the trouble of the nth turn, or null. Any hundred turns in a row
// hold each trouble exactly as often as its share says, well spread.
const Trouble* pick(const TroubleMix& mix, std::uint64_t nth);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_TROUBLE_H_
