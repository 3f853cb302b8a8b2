#include "trouble.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "answer.h"
#include "discovery_responder.h"
#include "session_troubles.h"

namespace velprobe::standin {

namespace {

constexpr std::uint32_t kLargestNumber = 86400000;  // a day of milliseconds

constexpr const char* kMoments = "request|at-once";

constexpr TroubleKind kKinds[] = {
    {.name = "silent",
     .form = ArgumentForm::kWord,
     .argument = kMoments,
     .help = "after the request, or at once, say nothing",
     .deliver = stay_silent},
    {.name = "slow",
     .form = ArgumentForm::kMilliseconds,
     .argument = "100",
     .help = "answer a byte each MS milliseconds",
     .deliver = answer_slowly},
    {.name = "late",
     .form = ArgumentForm::kMilliseconds,
     .argument = "3000",
     .help = "answer after MS milliseconds",
     .deliver = answer_late},
    {.name = "close",
     .form = ArgumentForm::kWord,
     .argument = kMoments,
     .help = "after the request, or at once, close",
     .deliver = close_unanswered},
    {.name = "reset",
     .form = ArgumentForm::kWord,
     .argument = kMoments,
     .help = "after the request, or at once, reset",
     .deliver = reset_unanswered},
    {.name = "half",
     .form = ArgumentForm::kWord,
     .argument = "close|reset",
     .help = "answer by half, then close or reset",
     .deliver = answer_by_half},
    {.name = "garbage",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "answer with bytes that make no sense",
     .deliver = answer_garbage},
    {.name = "greeting",
     .form = ArgumentForm::kWord,
     .argument = "ssh|smtp|http",
     .help = "answer as a server of another protocol",
     .deliver = greet},
    {.name = "wrong-major",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "offer the client's next major version",
     .plan = offer_next_major},
    {.name = "newer-minor",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "offer the client's next minor version",
     .plan = offer_next_minor},
    {.name = "auth",
     .form = ArgumentForm::kWord,
     .argument = "password|none|private-key",
     .help = "offer this authentication",
     .plan = offer_authentication},
    {.name = "refuse",
     .form = ArgumentForm::kReason,
     .argument = "",
     .help = "refuse, for REASON or that of --reason",
     .plan = refuse},
    {.name = "endless",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "answer without an end",
     .deliver = answer_endlessly},
    {.name = "deep",
     .form = ArgumentForm::kCount,
     .argument = "1000000",
     .help = "answer with N nested lists inside",
     .deliver = answer_with_depth},
    {.name = "filler",
     .form = ArgumentForm::kCount,
     .argument = "1000000",
     .help = "answer after N filler bytes",
     .deliver = answer_after_filler},
    {.name = "escape",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "refuse with terminal sequences in the reason",
     .plan = refuse_with_escapes},
    {.name = "discovery-twice",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "answer each query twice",
     .respond = respond_twice},
    {.name = "discovery-late",
     .form = ArgumentForm::kMilliseconds,
     .argument = "1500",
     .help = "answer queries after MS milliseconds",
     .respond = respond_late},
    {.name = "discovery-damaged",
     .form = ArgumentForm::kNone,
     .argument = "",
     .help = "answer queries with damaged datagrams",
     .respond = respond_damaged},
    {.name = "discovery-other-address",
     .form = ArgumentForm::kAddress,
     .argument = "127.0.0.2",
     .help = "answer queries from ADDRESS",
     .respond = respond_from_elsewhere},
};

const char* placeholder(const TroubleKind& kind) {
  switch (kind.form) {
    case ArgumentForm::kNone:
      return "";
    case ArgumentForm::kWord:
      return kind.argument;
    case ArgumentForm::kMilliseconds:
      return "MS";
    case ArgumentForm::kCount:
      return "N";
    case ArgumentForm::kReason:
      return "REASON";
    case ArgumentForm::kAddress:
      return "ADDRESS";
  }
  return "";
}

// split_off cuts a text at the first or last mark; the part behind it is empty
// when there is none.
std::string_view split_off(std::string_view& text, std::size_t mark) {
  if (mark == text.npos) return {};
  const std::string_view rest = text.substr(mark + 1);
  text = text.substr(0, mark);
  return rest;
}

bool parse_number(std::string_view text, std::uint32_t minimum,
                  std::uint32_t maximum, std::uint32_t& out) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, out);
  return error == std::errc() && stop == end && out >= minimum &&
         out <= maximum;
}

bool is_listed(std::string_view word, std::string_view words) {
  while (!words.empty()) {
    const std::string_view rest = split_off(words, words.find('|'));
    if (words == word) return true;
    words = rest;
  }
  return false;
}

ErrorText keep_text(std::string_view text, Trouble& out) {
  out.text = copy_text(text);
  if (!out.text) return kOutOfMemory;
  return {};
}

ErrorText parse_address(std::string_view text, Trouble& out) {
  if (ErrorText error = keep_text(text, out)) return error;
  if (::inet_pton(AF_INET, out.text.get(), out.address.data()) == 1) return {};
  return "this trouble takes an IPv4 address";
}

ErrorText parse_argument(std::string_view text, Trouble& out) {
  switch (out.kind->form) {
    case ArgumentForm::kNone:
      break;
    case ArgumentForm::kWord:
      if (is_listed(text, out.kind->argument)) return keep_text(text, out);
      return "this trouble takes other words";
    case ArgumentForm::kMilliseconds:
    case ArgumentForm::kCount:
      if (parse_number(text, 0, kLargestNumber, out.number)) return {};
      return "this trouble takes a number up to 86400000";
    case ArgumentForm::kReason:
      if (text.size() <= kLongestReason) return keep_text(text, out);
      return "a reason takes at most 1024 bytes";
    case ArgumentForm::kAddress:
      return parse_address(text, out);
  }
  return "this trouble takes no argument";
}

ErrorText take_default(Trouble& out) {
  if (*out.kind->argument == '\0') return {};
  std::string_view first = out.kind->argument;
  split_off(first, first.find('|'));
  return parse_argument(first, out);
}

// split_share takes ":SHARE%" off the end; 0 when there is none.
ErrorText split_share(std::string_view& text, std::uint32_t& out_percent) {
  out_percent = 0;
  if (!text.ends_with('%')) return {};
  std::string_view share = split_off(text, text.rfind(':'));
  share.remove_suffix(share.empty() ? 0 : 1);
  if (parse_number(share, 1, 100, out_percent)) return {};
  return "a share is a number from 1% to 100%";
}

}  // namespace

std::span<const TroubleKind> trouble_kinds() {
  return kKinds;
}

void add_usage(Line& line, const TroubleKind& kind) {
  line.add(kind.name);
  if (kind.form != ArgumentForm::kNone) {
    line.add_format("[:%s]", placeholder(kind));
  }
}

void add_help(Line& line, const TroubleKind& kind) {
  line.add(kind.help);
  if (kind.form != ArgumentForm::kWord && *kind.argument != '\0') {
    line.add_format(" (default %s)", kind.argument);
  }
}

ErrorText parse_trouble(std::string_view text, Trouble& out) {
  const std::size_t mark = text.find(':');
  const std::string_view argument = split_off(text, mark);
  const auto kind = std::find_if(
      std::begin(kKinds), std::end(kKinds),
      [text](const TroubleKind& each) { return text == each.name; });
  if (kind == std::end(kKinds)) return "unknown kind of trouble";
  out = {};
  out.kind = kind;
  return mark == text.npos ? take_default(out) : parse_argument(argument, out);
}

ErrorText copy_trouble(const Trouble& from, Trouble& out) {
  out.kind = from.kind;
  out.number = from.number;
  out.address = from.address;
  out.text.reset();
  return from.text ? keep_text(from.text.get(), out) : ErrorText();
}

bool strikes_at_once(const Trouble& trouble) {
  return trouble.kind != nullptr && trouble.kind->argument == kMoments &&
         std::strcmp(trouble.text.get(), "at-once") == 0;
}

ErrorText add_share(std::string_view text, TroubleMix& sessions,
                    TroubleMix& queries) {
  std::uint32_t percent;
  Trouble trouble;
  if (ErrorText error = split_share(text, percent)) return error;
  if (ErrorText error = parse_trouble(text, trouble)) return error;
  TroubleMix& mix = trouble.kind->respond != nullptr ? queries : sessions;
  if (percent == 0) percent = 100 - mix.percent;
  if (percent == 0 || mix.percent + percent > 100 ||
      mix.num_shares == mix.shares.size()) {
    return "the shares of all troubles exceed 100%";
  }
  mix.shares[mix.num_shares++] = {std::move(trouble), percent};
  mix.percent += percent;
  return {};
}

const Trouble* pick(const TroubleMix& mix, std::uint64_t nth) {
  // 61 and 100 have no common divisor, so that a hundred turns meet each
  // number below 100 once.
  unsigned place = static_cast<unsigned>(nth % 100 * 61 % 100);
  for (const TroubleMix::Share& share :
       std::span(mix.shares).first(mix.num_shares)) {
    if (place < share.percent) return &share.trouble;
    place -= share.percent;
  }
  return nullptr;
}

}  // namespace velprobe::standin
