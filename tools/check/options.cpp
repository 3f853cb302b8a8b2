#include "options.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "agents.h"
#include "output.h"
#include "status.h"

namespace velprobe::check {
namespace {

constexpr double kLongestTimeout = 86400;

constexpr std::uint32_t kRateOfFleet = 100;

constexpr char kHelp[] =
    R"(Usage: velcheck [OPTION]... [SERVER[:PORT]]...
       velcheck --merge [OPTION]... RESULT.json...
Ask Veltra servers, side by side and in bounded time, whether they accept the
agent of this host, and give the verdict to scripts and monitoring systems.

Whom to ask:
  -f, --config FILE        servers, port, name and domain of this agent.conf,
                           which is only read
      --servers-from FILE  servers from FILE, one a line, # begins a comment;
                           - is standard input
  -s, --scan               also the servers that answer discovery
      --all-addresses      each IPv4 address of a server's name, not just the
                           first, which is the one that an agent uses
Who asks:
  -n, --name NAME          name of the agent (default: as in the file, else
                           this host's address)
  -d, --domain DOMAIN      domain of the agent (default: as in the file)
      --agents-from FILE   ask for each agent of FILE instead, one NAME or NAME
                           DOMAIN a line, # begins a comment; - is standard
                           input
  -p, --port N             port of servers given without one (default: as in
                           the file, else 3241)
How long and how many:
  -t, --timeout S          seconds for the whole run (default 10, and with
                           --agents-from what --rate takes besides)
      --each S             seconds for one server (default 5)
  -j, --jobs N             servers asked at once, 1 to 4096 (default 64)
      --per-server N       of these at one address (default 8)
      --rate N             of these a second (default 100 with --agents-from,
                           else as fast as it goes)
Verdict, on the number of servers that do not accept, as the RANGE of
monitoring plugins (N, N:, ~:N, N:M, @N:M):
  -w, --warning RANGE      (default: any)
  -c, --critical RANGE     (default: all)
Output, by default a monitoring plugin's:
      --json               one JSON object
      --jsonl              a JSON object a server, each as it comes
      --prometheus         metrics for a textfile collector
      --output FILE        replace FILE, whole, instead of standard output
      --html FILE          replace FILE, besides, by a page of agents and servers
      --merge              ask nobody: put results of --json together as one, and
                           show those that disagree beside each other

  -h, --help               show this help and exit
  -V, --version            show the version and exit

Exit status: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.
)";

template <typename Number>
bool take_number(const char* value, Number minimum, Number maximum,
                 Number& out) {
  const char* const end = value + std::strlen(value);
  Number number = 0;
  const auto [stop, error] = std::from_chars(value, end, number);
  if (error != std::errc() || stop != end) return false;
  if (number < minimum || number > maximum) return false;
  out = number;
  return true;
}

bool take_seconds(const char* value, double& out) {
  double seconds = 0;
  if (!parse_decimal_number(value, seconds)) return false;
  if (seconds <= 0 || seconds > kLongestTimeout) return false;
  out = seconds;
  return true;
}

bool take_text(const char* value, std::size_t longest, const char*& out) {
  out = value;
  return std::strlen(value) <= longest;
}

// Of two files one would be passed over.
bool take_path(const char* value, const char*& out) {
  const bool is_first = out == nullptr;
  out = value;
  return is_first && *value != '\0';
}

bool take_format(Format format, Options& options) {
  const bool first = !options.format || *options.format == format;
  options.format = format;
  return first;
}

using Value = const char*;

// OptionRow is one option: take stores the value, or is false when complaint
// tells what is wrong with it. An option without a letter has 0.
struct OptionRow {
  const char* name;
  char letter;
  int argument;
  const char* complaint;
  bool (*take)(Value value, Options& options);
};

constexpr char kOneFormat[] = "only one of --json, --jsonl and --prometheus";

constexpr OptionRow kOptions[] = {
    {"config", 'f', required_argument, "--config needs the name of one file",
     [](Value v, Options& o) { return take_path(v, o.config); }},
    {"servers-from", 0, required_argument,
     "--servers-from needs the name of one file",
     [](Value v, Options& o) { return take_path(v, o.servers_from); }},
    {"agents-from", 0, required_argument,
     "--agents-from needs the name of one file",
     [](Value v, Options& o) { return take_path(v, o.agents_from); }},
    {"scan", 's', no_argument, nullptr,
     [](Value, Options& o) { return o.scan = true; }},
    {"all-addresses", 0, no_argument, nullptr,
     [](Value, Options& o) { return o.all_addresses = true; }},
    {"name", 'n', required_argument, "--name takes at most 256 bytes",
     [](Value v, Options& o) { return take_text(v, kLongestName, o.name); }},
    {"domain", 'd', required_argument, "--domain takes at most 1024 bytes",
     [](Value v, Options& o) {
       return take_text(v, kLongestDomain, o.domain);
     }},
    {"port", 'p', required_argument, "--port needs a number from 1 to 65535",
     [](Value v, Options& o) {
       return take_number<std::uint16_t>(v, 1, 65535, o.port.emplace());
     }},
    {"timeout", 't', required_argument,
     "--timeout needs seconds, above 0 and at most 86400",
     [](Value v, Options& o) {
       o.has_timeout = true;
       return take_seconds(v, o.timeout);
     }},
    {"each", 0, required_argument,
     "--each needs seconds, above 0 and at most 86400",
     [](Value v, Options& o) { return take_seconds(v, o.each); }},
    {"jobs", 'j', required_argument, "--jobs needs a number from 1 to 4096",
     [](Value v, Options& o) {
       return take_number<std::uint32_t>(v, 1, 4096, o.jobs);
     }},
    {"per-server", 0, required_argument,
     "--per-server needs a number from 1 to 4096",
     [](Value v, Options& o) {
       return take_number<std::uint32_t>(v, 1, 4096, o.per_server);
     }},
    {"rate", 0, required_argument, "--rate needs a number from 1 to 10000",
     [](Value v, Options& o) {
       return take_number<std::uint32_t>(v, 1, 10000, o.rate);
     }},
    {"warning", 'w', required_argument,
     "--warning needs a range such as 1, 1:, ~:1, 1:2 or @1:2",
     [](Value v, Options& o) { return parse_range(v, o.warning.emplace()); }},
    {"critical", 'c', required_argument,
     "--critical needs a range such as 1, 1:, ~:1, 1:2 or @1:2",
     [](Value v, Options& o) { return parse_range(v, o.critical.emplace()); }},
    {"json", 0, no_argument, kOneFormat,
     [](Value, Options& o) { return take_format(Format::kJson, o); }},
    {"jsonl", 0, no_argument, kOneFormat,
     [](Value, Options& o) { return take_format(Format::kJsonLines, o); }},
    {"prometheus", 0, no_argument, kOneFormat,
     [](Value, Options& o) { return take_format(Format::kPrometheus, o); }},
    {"output", 0, required_argument, "--output needs the name of one file",
     [](Value v, Options& o) { return take_path(v, o.output); }},
    {"html", 0, required_argument, "--html needs the name of one file",
     [](Value v, Options& o) { return take_path(v, o.html); }},
    {"merge", 0, no_argument, nullptr,
     [](Value, Options& o) { return o.merge = true; }},
    {"help", 'h', no_argument, nullptr, nullptr},
    {"version", 'V', no_argument, nullptr, nullptr},
};
constexpr int kNumOptions = static_cast<int>(std::size(kOptions));

// Option i of the table goes by the number kFirstId + i, above every letter.
constexpr int kFirstId = 256;

std::string letters_for_getopt() {
  std::string letters;
  for (const OptionRow& row : kOptions) {
    if (row.letter == 0) continue;
    letters += row.letter;
    if (row.argument == required_argument) letters += ':';
  }
  return letters;
}

std::vector<option> names_for_getopt() {
  std::vector<option> names;
  for (int i = 0; i < kNumOptions; ++i) {
    const OptionRow& row = kOptions[i];
    names.push_back({row.name, row.argument, nullptr, kFirstId + i});
  }
  names.push_back({nullptr, 0, nullptr, 0});
  return names;
}

const OptionRow* find_option(int id) {
  for (int i = 0; i < kNumOptions; ++i) {
    if (id == kFirstId + i || id == kOptions[i].letter) return &kOptions[i];
  }
  return nullptr;
}

int complain(const char* what, const char* value) {
  if (value == nullptr) {
    std::fprintf(stderr, "velcheck: %s\n", what);
  } else {
    std::fprintf(stderr, "velcheck: %s: \"%s\"\n", what, value);
  }
  return kUnknown;
}

int show(const char* text) {
  if (!write_all(1, text)) return complain("cannot write the output", nullptr);
  return kOk;
}

// take_option gives an exit status when the option ends the program.
std::optional<int> take_option(const OptionRow* row, Options& options) {
  if (row == nullptr) {
    std::fputs("Try \"velcheck --help\".\n", stderr);
    return kUnknown;
  }
  if (row->letter == 'h') return show(kHelp);
  if (row->letter == 'V') return show("velcheck " VELPROBE_VERSION "\n");
  if (row->take(optarg, options)) return {};
  return complain(row->complaint, optarg);
}

bool is_standard_input(const char* path) {
  return path != nullptr && std::string_view(path) == "-";
}

// complaint_about tells what does not fit together, or null.
const char* complaint_about(const Options& o) {
  const bool any_server =
      o.scan || o.config != nullptr || o.servers_from != nullptr;
  const bool any_agent =
      o.name != nullptr || o.domain != nullptr || o.agents_from != nullptr;
  if (o.merge && (any_server || any_agent)) {
    return "--merge asks nobody: it takes results, no servers and no agents";
  }
  if (o.merge && o.servers.empty()) return "--merge needs a result to read";
  if (!any_server && o.servers.empty()) {
    return "no server to ask: name one, or give --config, --servers-from or "
           "--scan";
  }
  if (o.name != nullptr && o.agents_from != nullptr) {
    return "only one of --name and --agents-from";
  }
  if (o.output != nullptr && o.html != nullptr &&
      std::strcmp(o.output, o.html) == 0) {
    return "--output and --html need two files";
  }
  if (is_standard_input(o.agents_from) && is_standard_input(o.servers_from)) {
    return "only one of --agents-from and --servers-from from standard input";
  }
  return nullptr;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& options) {
  const std::string letters = letters_for_getopt();
  const std::vector<option> names = names_for_getopt();
  int id;
  while ((id = ::getopt_long(argc, argv, letters.c_str(), names.data(),
                             nullptr)) != -1) {
    const OptionRow* row = id == '?' ? nullptr : find_option(id);
    if (const std::optional<int> status = take_option(row, options)) {
      return status;
    }
  }
  options.servers.assign(argv + optind, argv + argc);
  if (options.agents_from != nullptr && options.rate == 0) {
    options.rate = kRateOfFleet;
  }
  const char* const complaint = complaint_about(options);
  if (complaint == nullptr) return {};
  return complain(complaint, nullptr);
}

}  // namespace velprobe::check
