#include "driver.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "../config/agent_config.h"
#include "../config/settings.h"
#include "../net/tcp.h"
#include "../probe/check_in_probe.h"
#include "../probe/discovery_scan.h"
#include "../util/byte_buffer.h"
#include "../util/console.h"
#include "../util/error_text.h"
#include "../util/printable_text.h"
#include "../util/text.h"
#include "outcome.h"

namespace velprobe {
namespace {

struct Run {
  ConfigKeyList config_keys;
  const char* config_path = nullptr;
  Mode mode = Mode::kTest;
  std::uint16_t port = kDefaultServerPort;
  // A text list: see next_text.
  Text server_names;
  // The servers that answered the protocol, comma-separated; empty: none did.
  ByteBuffer working_servers;
  Text proposed_name;
  bool any_accepted = false;
  bool any_rejected = false;
};

const char* or_empty(const char* text) {
  return text != nullptr ? text : "";
}

// print_foreign prints what a server or the configuration file says. It must
// not steer a terminal or forge a line on it; into a pipe or a file the bytes
// go out as they came.
void print_foreign(std::string_view text) {
  if (::isatty(STDOUT_FILENO) == 0) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    return;
  }
  const Text shown = copy_text(text);
  if (shown) replace_control_bytes(shown.get());
  std::fputs(shown ? shown.get() : kOutOfMemory, stdout);
}

void print_quoted(const char* before, std::string_view text,
                  const char* after) {
  std::printf("%s\"", before);
  print_foreign(text);
  std::printf("\"%s", after);
}

// The functions from here to the end are the story of a run. Each is true when
// the story goes on, and otherwise has told the user why it ends with a
// failure.

// ask asks a yes/no question; only a lower-case "y" is a yes.
bool ask(bool& out_yes) {
  std::array<char, 8> answer{};
  if (ErrorText error = input_line(answer.data(), answer.size(), "(y/N) ")) {
    std::printf("%s", error.c_str());
    return false;
  }
  out_yes = answer[0] == 'y';
  return true;
}

// --- Start-up -----------------------------------------------------------

bool start_up() {
  // To write beyond the limit on file sizes is an error like a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  const ErrorText error = start_socket_subsystem();
  if (!error) return true;
  std::fprintf(stderr, "Error starting socket subsystem: %s\n", error.c_str());
  return false;
}

bool complain_about_usage() {
  std::fputs("Usage: velprobe agent.conf (test|configure)\n", stderr);
  return false;
}

bool read_command_line(int argc, char** argv, Run& run) {
  if (argc != 3) {
    std::fputs("Invalid number of arguments\n", stderr);
    return complain_about_usage();
  }
  run.config_path = argv[1];
  const char* operation = argv[2];
  if (std::strcmp(operation, "test") == 0) {
    run.mode = Mode::kTest;
  } else if (std::strcmp(operation, "configure") == 0) {
    run.mode = Mode::kConfigure;
  } else {
    std::fprintf(stderr, "Operation \"%s\" not implemented\n", operation);
    return complain_about_usage();
  }
  return true;
}

bool read_configuration(Run& run) {
  if (ErrorText error = process_config_file(
          run.config_path, run.config_keys.head(), ConfigMode::kRead)) {
    std::puts(error.c_str());
    return false;
  }
  run.port = parse_server_port(run.config_keys[kServerPortKey].get(),
                               kDefaultServerPort);
  return true;
}

// --- Choosing the servers -----------------------------------------------

bool take_configured_servers(Run& run) {
  run.server_names = split_server_list(run.config_keys[kServerListKey].get());
  if (run.server_names) return true;
  std::puts(kOutOfMemory);
  return false;
}

bool scan_networks(Run& run) {
  std::printf("Will scan for a Veltra Server listening on port %i...\n",
              run.port);
  std::fflush(stdout);
  if (ErrorText error = scan_for_servers(run.port, &run.server_names)) {
    std::puts(error.c_str());
    return false;
  }
  const char* name = run.server_names.get();
  for (; *name != '\0'; name = next_text(name)) {
    print_quoted("Found Veltra server ", name, "\n");
  }
  std::puts("");
  return true;
}

bool choose_servers_to_configure(Run& run) {
  const char* list = run.config_keys[kServerListKey].get();
  const bool already_configured =
      !is_absent_or_empty(list) && std::strcmp(list, "localhost") != 0;
  if (!already_configured) return scan_networks(run);

  std::puts(
      "This Veltra agent is already configured to check in to the Veltra "
      "server:");
  print_quoted("", list,
               ", do you want to scan for the Veltra server anyway? ");
  bool wants_scan = false;
  if (!ask(wants_scan)) return false;
  if (wants_scan) return scan_networks(run);
  std::puts("");
  return take_configured_servers(run);
}

bool choose_servers(Run& run) {
  return run.mode == Mode::kConfigure ? choose_servers_to_configure(run)
                                      : take_configured_servers(run);
}

// --- Probing ------------------------------------------------------------

bool add_working_server(Run& run, const char* server) {
  const bool first = run.working_servers.size() == 0;
  if ((first || run.working_servers.append(",")) &&
      run.working_servers.append(server)) {
    return true;
  }
  std::printf("%s", kOutOfMemory);
  return false;
}

// Without a configured name the agent goes by its address; the last server's
// view of it wins.
void take_proposed_name(Run& run, Text address_text) {
  if (!address_text || !is_absent_or_empty(run.config_keys[kNameKey].get())) {
    return;
  }
  std::printf(
      "Agent name not specified in %s.\n"
      "Will use IP address as agent name \"%s\"\n",
      run.config_path, address_text.get());
  run.proposed_name = std::move(address_text);
}

bool try_server(Run& run, const char* server) {
  print_quoted("Trying to connect to Veltra server ", server, " on port ");
  std::printf("%d ...\n", run.port);
  Text address_text;
  ProbeStatus status = ProbeStatus::kNoAnswer;
  const ErrorText error =
      probe_server(server, run.port, run.config_keys[kNameKey].get(),
                   run.config_keys[kDomainKey].get(), &address_text, &status);
  take_proposed_name(run, std::move(address_text));
  if (status != ProbeStatus::kNoAnswer) {
    if (!add_working_server(run, server)) return false;
    if (error) {
      run.any_rejected = true;
    } else {
      run.any_accepted = true;
    }
  }
  if (error) {
    print_foreign(error.c_str());
    std::puts("");
  } else {
    std::puts("Connecting to server: OK.");
  }
  return true;
}

bool propose_configured_name(Run& run) {
  const char* name = run.config_keys[kNameKey].get();
  if (run.proposed_name || name == nullptr) return true;
  run.proposed_name = copy_text(name);
  if (run.proposed_name) return true;
  std::puts(kOutOfMemory);
  return false;
}

bool try_all_servers(Run& run) {
  const char* server = run.server_names.get();
  const bool any = *server != '\0';
  for (; *server != '\0'; server = next_text(server)) {
    if (!try_server(run, server)) return false;
  }
  if (any) std::puts("");
  return propose_configured_name(run);
}

// --- Outcome ------------------------------------------------------------

bool write_configuration(Run& run) {
  std::printf("Updating \"%s\" ...\n", run.config_path);
  run.config_keys[kServerListKey] = copy_text(run.working_servers.view());
  run.config_keys[kNameKey] = std::move(run.proposed_name);
  if (!run.config_keys[kServerListKey]) {
    std::printf("Error: %s\n", kOutOfMemory);
    return false;
  }
  if (ErrorText error = process_config_file(
          run.config_path, run.config_keys.head(), ConfigMode::kWrite)) {
    std::printf("Error: %s\n", error.c_str());
    return false;
  }
  std::puts("Configuration succesfully updated.");
  return true;
}

bool offer_update(Run& run) {
  Text& domain = run.config_keys[kDomainKey];
  if (is_absent_or_empty(domain.get())) domain = copy_text(".");
  if (!domain) {
    std::puts(kOutOfMemory);
    return false;
  }
  print_quoted("\nVeltra server name: ", run.working_servers.view(), "\n");
  print_quoted("Veltra agent name: ", or_empty(run.proposed_name.get()), "\n");
  print_quoted("Veltra agent domain: ", domain.get(), "\n\n");

  std::puts(
      "Do you want to update the configuration file of this Veltra agent");
  std::printf("with the above information? ");
  bool wants_update = false;
  if (!ask(wants_update)) return false;
  return !wants_update || write_configuration(run);
}

bool conclude(Run& run) {
  const bool any_answered = run.working_servers.size() > 0;
  const Verdict verdict =
      judge(any_answered, run.any_accepted, run.any_rejected);
  print_outcome(verdict, run.mode);
  if (any_answered && run.mode == Mode::kConfigure) return offer_update(run);
  return true;
}

}  // namespace

int run_velprobe(int argc, char** argv) {
  Run run;
  const bool success = start_up() && read_command_line(argc, argv, run) &&
                       read_configuration(run) && choose_servers(run) &&
                       try_all_servers(run) && conclude(run);
  return success ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace velprobe
