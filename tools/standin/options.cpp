#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <system_error>

namespace velprobe {

namespace {

constexpr int kUsageError = 2;
// Limits of the protocol, in bytes.
constexpr std::size_t kLongestName = 256;
constexpr std::size_t kLongestReason = 1024;

constexpr char kHelp[] =
    R"(Usage: velstandin [OPTION]...
Stand in for a Veltra server: answer the opening of the agent protocol over TCP
and discovery queries over UDP, and print one line a session. To rehearse a
roll-out or to check a firewall before the real server stands.

  --listen ADDRESS     IPv4 address to listen on (default 127.0.0.1; 0.0.0.0 is
                       every interface)
  --port N             TCP and UDP port (default 3241; 0: the system chooses)
  --node NAME          accept the agent of this name and refuse all others; may
                       be given several times (default: accept every agent)
  --reason TEXT        what a refused agent is told, at most 1024 bytes
  --offer-version N    protocol version to offer, decimal or 0x and hexadecimal,
                       0 to 65535 (default 514, that is 0x0202)
  --auth KIND          server authentication to offer: private-key (default),
                       password or none
  --no-discovery       do not answer discovery queries
  --sessions N         end after N sessions (default: run until interrupted)
  --help               show this help and exit
  --version            show the version and exit

It serves one client after the other; each session is cut off after 10 seconds.
While listening on a loopback address, it answers discovery queries from this
host only. Of several on one port number, only one can answer discovery queries.
)";

enum OptionId {
  kListen = 1,
  kPort,
  kNode,
  kReason,
  kOfferVersion,
  kAuth,
  kNoDiscovery,
  kSessions,
  kHelpWanted,
  kVersionWanted,
};

constexpr option kOptions[] = {
    {"listen", required_argument, nullptr, kListen},
    {"port", required_argument, nullptr, kPort},
    {"node", required_argument, nullptr, kNode},
    {"reason", required_argument, nullptr, kReason},
    {"offer-version", required_argument, nullptr, kOfferVersion},
    {"auth", required_argument, nullptr, kAuth},
    {"no-discovery", no_argument, nullptr, kNoDiscovery},
    {"sessions", required_argument, nullptr, kSessions},
    {"help", no_argument, nullptr, kHelpWanted},
    {"version", no_argument, nullptr, kVersionWanted},
    {nullptr, 0, nullptr, 0},
};

int complain(const char* what, const char* value) {
  std::fprintf(stderr, "velstandin: %s: \"%s\"\n", what, value);
  return kUsageError;
}

// parse_number reads digits of the given base and nothing else.
template <typename Number>
bool parse_number(std::string_view text, int base, Number minimum,
                  Number& out) {
  const char* const end = text.data() + text.size();
  Number value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || stop != end || value < minimum) return false;
  out = value;
  return true;
}

bool parse_version(const char* text, std::uint16_t& out) {
  const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  return hexadecimal ? parse_number<std::uint16_t>(text + 2, 16, 0, out)
                     : parse_number<std::uint16_t>(text, 10, 0, out);
}

// take_option stores one option's value; it gives a complaint about the value,
// or null.
const char* take_option(int id, const char* value, Options& options) {
  AnswerPolicy& answer = options.answer;
  switch (id) {
    case kListen:
      if (::inet_pton(AF_INET, value, options.listen.data()) == 1) break;
      return "--listen needs an IPv4 address";
    case kPort:
      if (parse_number<std::uint16_t>(value, 10, 0, options.port)) break;
      return "--port needs a number from 0 to 65535";
    case kNode:
      if (*value == '\0' || std::strlen(value) > kLongestName) {
        return "--node needs a name of 1 to 256 bytes";
      }
      options.nodes[answer.nodes.size()] = value;
      answer.nodes = {options.nodes.get(), answer.nodes.size() + 1};
      break;
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
    case kNoDiscovery:
      options.discovery = false;
      break;
    case kSessions:
      if (parse_number<std::uint32_t>(value, 10, 1, options.sessions)) break;
      return "--sessions needs a number from 1 to 4294967295";
  }
  return nullptr;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& options) {
  options.nodes.reset(new (std::nothrow)
                          const char*[static_cast<std::size_t>(argc)]);
  if (!options.nodes) return complain("not enough memory", argv[0]);

  int id;
  while ((id = ::getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    if (id == kHelpWanted) {
      std::fputs(kHelp, stdout);
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

}  // namespace velprobe
