#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "answer.h"
#include "line.h"

namespace velprobe::standin {

namespace {

constexpr int kUsageError = 2;
constexpr std::uint32_t kMostSeats = 10000;
constexpr std::uint32_t kLongestLimit = 86400;  // a day

constexpr char kHelp[] =
    R"(Usage: velstandin [OPTION]...
Stand in for a Veltra server: answer the opening of the agent protocol over TCP
and discovery queries over UDP, and print one line a session. To rehearse a
roll-out, good days and bad, or to check a firewall before the real server
stands.

  --listen ADDRESS     IPv4 address to listen on (default 127.0.0.1; 0.0.0.0 is
                       every interface)
  --port N             TCP and UDP port (default 3241; 0: the system chooses)
  --node NAME          accept the agent of this name and refuse all that are not
                       named (default: accept every agent)
  --node NAME=TROUBLE  accept the agent of this name, with trouble of its own
  --node-file FILE     a NAME or NAME=TROUBLE a line, as if by --node; refuse
                       all others; read again at SIGHUP
  --reason TEXT        what a refused agent is told, at most 1024 bytes
  --offer-version N    protocol version to offer, decimal or 0x and hexadecimal,
                       0 to 65535 (default 514, that is 0x0202)
  --auth KIND          server authentication to offer: private-key (default),
                       password or none
  --trouble TROUBLE    make trouble in every session, or TROUBLE:SHARE%, as in
                       silent:30%, in so many of a hundred; may be given several
                       times
  --no-discovery       do not answer discovery queries
  --sessions N         end after N sessions (default: run until interrupted)
  --max-sessions N     serve so many clients side by side (default 256)
  --session-limit S    cut a session off after so many seconds (default 10)
  --log KIND           text (default) or jsonl, an object of JSON a line
  --help               show this help and exit
  --version            show the version and exit

TROUBLE is one of these:
)";

constexpr char kHelpEnd[] = R"(
When all places are taken, a client that keeps silent gives way. At SIGUSR1 and
at the end it prints a summary. While listening on a loopback address, it
answers discovery queries from this host only. Of several on one port number,
only one can answer discovery queries.
)";

enum OptionId {
  kListen = 1,
  kPort,
  kNode,
  kNodeFile,
  kReason,
  kOfferVersion,
  kAuth,
  kTrouble,
  kNoDiscovery,
  kSessions,
  kMaxSessions,
  kSessionLimit,
  kLog,
  kHelpWanted,
  kVersionWanted,
};

constexpr option kOptions[] = {
    {"listen", required_argument, nullptr, kListen},
    {"port", required_argument, nullptr, kPort},
    {"node", required_argument, nullptr, kNode},
    {"node-file", required_argument, nullptr, kNodeFile},
    {"reason", required_argument, nullptr, kReason},
    {"offer-version", required_argument, nullptr, kOfferVersion},
    {"auth", required_argument, nullptr, kAuth},
    {"trouble", required_argument, nullptr, kTrouble},
    {"no-discovery", no_argument, nullptr, kNoDiscovery},
    {"sessions", required_argument, nullptr, kSessions},
    {"max-sessions", required_argument, nullptr, kMaxSessions},
    {"session-limit", required_argument, nullptr, kSessionLimit},
    {"log", required_argument, nullptr, kLog},
    {"help", no_argument, nullptr, kHelpWanted},
    {"version", no_argument, nullptr, kVersionWanted},
    {nullptr, 0, nullptr, 0},
};

int complain(const char* what, const char* value) {
  std::fprintf(stderr, "velstandin: %s: \"%s\"\n", what, value);
  return kUsageError;
}

void print_help() {
  std::fputs(kHelp, stdout);
  for (const TroubleKind& kind : trouble_kinds()) {
    constexpr std::size_t kColumn = 28;
    Line line;
    line.add("  ");
    add_usage(line, kind);
    if (line.view().size() >= kColumn) line.add("\n");
    const std::size_t size =
        line.view().ends_with('\n') ? 0 : line.view().size();
    line.add_format("%*s", static_cast<int>(kColumn - size), "");
    add_help(line, kind);
    line.add("\n");
    std::fwrite(line.view().data(), 1, line.view().size(), stdout);
  }
  std::fputs(kHelpEnd, stdout);
}

// parse_number reads digits of the given base and nothing else.
template <typename Number>
bool parse_number(std::string_view text, int base, Number minimum, Number& out,
                  Number maximum = std::numeric_limits<Number>::max()) {
  const char* const end = text.data() + text.size();
  Number value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || stop != end) return false;
  if (value < minimum || value > maximum) return false;
  out = value;
  return true;
}

bool parse_version(const char* text, std::uint16_t& out) {
  const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  return hexadecimal ? parse_number<std::uint16_t>(text + 2, 16, 0, out)
                     : parse_number<std::uint16_t>(text, 10, 0, out);
}

// take_node keeps an entry once it is known to be a good one.
const char* take_node(const char* value, Options& options) {
  NodeTable trial;
  if (ErrorText error = trial.add_entry(value)) return error.c_str();
  const std::size_t size = options.nodes.size();
  options.node_texts[size] = value;
  options.nodes = {options.node_texts.get(), size + 1};
  return nullptr;
}

const char* take_answer_option(int id, const char* value, AnswerPlan& answer) {
  switch (id) {
    case kReason:
      if (std::strlen(value) > kLongestReason) {
        return "--reason takes at most 1024 bytes";
      }
      answer.reason = value;
      break;
    case kOfferVersion:
      if (parse_version(value, answer.version)) break;
      return "--offer-version needs a number from 0 to 65535";
    case kAuth:
      answer.authentication = find_authentication(value);
      if (answer.authentication != nullptr) break;
      return "--auth needs private-key, password or none";
  }
  return nullptr;
}

const char* take_limit(int id, const char* value, Options& options) {
  constexpr int kDecimal = 10;
  switch (id) {
    case kSessions:
      if (parse_number<std::uint32_t>(value, kDecimal, 1, options.sessions)) {
        break;
      }
      return "--sessions needs a number from 1 to 4294967295";
    case kMaxSessions:
      if (parse_number<std::uint32_t>(value, kDecimal, 1, options.max_sessions,
                                      kMostSeats)) {
        break;
      }
      return "--max-sessions needs a number from 1 to 10000";
    case kSessionLimit:
      if (parse_number<std::uint32_t>(
              value, kDecimal, 1, options.rules.limit_seconds, kLongestLimit)) {
        break;
      }
      return "--session-limit needs a number from 1 to 86400";
  }
  return nullptr;
}

// take_option stores one option's value; it gives a complaint about the value,
// or null.
const char* take_option(int id, const char* value, Options& options) {
  switch (id) {
    case kListen:
      if (::inet_pton(AF_INET, value, options.listen.data()) == 1) break;
      return "--listen needs an IPv4 address";
    case kPort:
      if (parse_number<std::uint16_t>(value, 10, 0, options.port)) break;
      return "--port needs a number from 0 to 65535";
    case kNode:
      return take_node(value, options);
    case kNodeFile:
      if (std::exchange(options.node_file, value) == nullptr) break;
      return "--node-file needs the name of one file";
    case kTrouble:
      return add_share(value, options.rules.troubles, options.query_troubles)
          .c_str();
    case kNoDiscovery:
      options.discovery = false;
      break;
    case kLog:
      options.log = std::strcmp(value, "jsonl") == 0 ? LogForm::kJsonLines
                                                     : LogForm::kText;
      if (options.log == LogForm::kJsonLines ||
          std::strcmp(value, "text") == 0) {
        break;
      }
      return "--log needs text or jsonl";
    case kReason:
    case kOfferVersion:
    case kAuth:
      return take_answer_option(id, value, options.rules.answer);
    default:
      return take_limit(id, value, options);
  }
  return nullptr;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& options) {
  options.node_texts.reset(new (std::nothrow)
                               const char*[static_cast<std::size_t>(argc)]);
  if (!options.node_texts) return complain("not enough memory", argv[0]);

  int id;
  while ((id = ::getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    if (id == kHelpWanted) {
      print_help();
      return EXIT_SUCCESS;
    }
    if (id == kVersionWanted) {
      std::puts("velstandin " VELPROBE_VERSION);
      return EXIT_SUCCESS;
    }
    if (id == '?') {
      std::fputs("Try \"velstandin --help\".\n", stderr);
      return kUsageError;
    }
    if (const char* complaint = take_option(id, optarg, options)) {
      return complain(complaint, optarg);
    }
  }
  if (optind < argc) return complain("unexpected argument", argv[optind]);
  return {};
}

}  // namespace velprobe::standin
