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

// Step tells whether the story goes on or has come to its end.
enum class Step { kGoOn, kSucceed, kFail };

// Run holds what one run knows.
struct Run {
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

const char* config_value(ConfigKeyPosition key) {
  return config_keys[key].value.get();
}

const char* or_empty(const char* text) {
  return text != nullptr ? text : "";
}

// print_server_text prints a line that may hold a server's own words. They
// must not steer a terminal or forge a line on it; into a pipe or a file the
// bytes go out as they came.
void print_server_text(const char* text) {
  std::array<char, kErrorTextSize> shown;
  copy_bounded(shown.data(), text, shown.size());
  if (::isatty(STDOUT_FILENO) != 0) replace_control_bytes(shown.data());
  std::puts(shown.data());
}

// ask asks a yes/no question; only a lower-case "y" is a yes. kFail: nobody
// answers, and the user has been told.
Step ask(bool& out_yes) {
  std::array<char, 8> answer{};
  if (ErrorText error = input_line(answer.data(), answer.size(), "(y/N) ")) {
    std::printf("%s", error.c_str());
    return Step::kFail;
  }
  out_yes = answer[0] == 'y';
  return Step::kGoOn;
}

// --- Start-up -----------------------------------------------------------

Step complain_about_usage() {
  std::fputs("Usage: velprobe agent.conf (test|configure)\n", stderr);
  return Step::kFail;
}

Step read_command_line(int argc, char** argv, Run& run) {
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
  return Step::kGoOn;
}

Step start_up(int argc, char** argv, Run& run) {
  // To write beyond the limit on file sizes is an error like a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  if (ErrorText error = start_socket_subsystem()) {
    std::fprintf(stderr, "Error starting socket subsystem: %s\n",
                 error.c_str());
    return Step::kFail;
  }
  return read_command_line(argc, argv, run);
}

// The low 16 bits of the number are the port, whatever the file says.
std::uint16_t configured_port() {
  const char* text = config_value(kServerPortKey);
  if (text == nullptr) return kDefaultServerPort;
  return static_cast<std::uint16_t>(std::strtol(text, nullptr, 0));
}

Step read_configuration(Run& run) {
  if (ErrorText error = process_config_file(run.config_path, config_keys,
                                            ConfigMode::kRead)) {
    std::puts(error.c_str());
    return Step::kFail;
  }
  run.port = configured_port();
  return Step::kGoOn;
}

// --- Choosing the servers -----------------------------------------------

// One server a comma; no blanks are trimmed.
Step take_configured_servers(Run& run) {
  const char* list = or_empty(config_value(kServerListKey));
  const std::size_t length = std::strlen(list);
  run.server_names = new_text(length + 1);
  if (!run.server_names) {
    std::puts(kOutOfMemory);
    return Step::kFail;
  }
  for (std::size_t i = 0; i < length; ++i)
    run.server_names[i] = list[i] == ',' ? '\0' : list[i];
  return Step::kGoOn;
}

Step scan_networks(Run& run) {
  std::printf("Will scan for a Veltra Server listening on port %i...\n",
              run.port);
  std::fflush(stdout);
  if (ErrorText error = scan_for_servers(run.port, &run.server_names)) {
    std::puts(error.c_str());
    return Step::kFail;
  }
  const char* name = run.server_names.get();
  for (; *name != '\0'; name = next_text(name))
    std::printf("Found Veltra server \"%s\"\n", name);
  std::puts("");
  return Step::kGoOn;
}

Step choose_servers_to_configure(Run& run) {
  const char* list = config_value(kServerListKey);
  const bool already_configured =
      !is_absent_or_empty(list) && std::strcmp(list, "localhost") != 0;
  if (!already_configured) return scan_networks(run);

  std::puts(
      "This Veltra agent is already configured to check in to the Veltra "
      "server:");
  std::printf("\"%s\", do you want to scan for the Veltra server anyway? ",
              list);
  bool wants_scan = false;
  if (const Step step = ask(wants_scan); step != Step::kGoOn) return step;
  if (wants_scan) return scan_networks(run);
  std::puts("");
  return take_configured_servers(run);
}

Step choose_servers(Run& run) {
  return run.mode == Mode::kConfigure ? choose_servers_to_configure(run)
                                      : take_configured_servers(run);
}

// --- Probing ------------------------------------------------------------

Step add_working_server(Run& run, const char* server) {
  const bool first = run.working_servers.size() == 0;
  if ((first || run.working_servers.append(",")) &&
      run.working_servers.append(server))
    return Step::kGoOn;
  std::printf("%s", kOutOfMemory);
  return Step::kFail;
}

// Without a configured name the agent goes by its address; the last server's
// view of it wins.
void take_proposed_name(Run& run, Text address_text) {
  if (!address_text || !is_absent_or_empty(config_value(kNameKey))) return;
  std::printf(
      "Agent name not specified in %s.\n"
      "Will use IP address as agent name \"%s\"\n",
      run.config_path, address_text.get());
  run.proposed_name = std::move(address_text);
}

Step try_server(Run& run, const char* server) {
  std::printf("Trying to connect to Veltra server \"%s\" on port %d ...\n",
              server, run.port);
  Text address_text;
  ProbeStatus status = ProbeStatus::kNoAnswer;
  const ErrorText error =
      probe_server(server, run.port, config_value(kNameKey),
                   config_value(kDomainKey), &address_text, &status);
  take_proposed_name(run, std::move(address_text));
  if (status != ProbeStatus::kNoAnswer) {
    if (const Step step = add_working_server(run, server); step != Step::kGoOn)
      return step;
    if (error) {
      run.any_rejected = true;
    } else {
      run.any_accepted = true;
    }
  }
  if (error) {
    print_server_text(error.c_str());
  } else {
    std::puts("Connecting to server: OK.");
  }
  return Step::kGoOn;
}

Step propose_configured_name(Run& run) {
  const char* name = config_value(kNameKey);
  if (run.proposed_name || name == nullptr) return Step::kGoOn;
  run.proposed_name = copy_text(name);
  if (run.proposed_name) return Step::kGoOn;
  std::puts(kOutOfMemory);
  return Step::kFail;
}

Step try_all_servers(Run& run) {
  const char* server = run.server_names.get();
  const bool any = *server != '\0';
  for (; *server != '\0'; server = next_text(server)) {
    if (const Step step = try_server(run, server); step != Step::kGoOn)
      return step;
  }
  if (any) std::puts("");
  return propose_configured_name(run);
}

// --- Outcome ------------------------------------------------------------

Step write_configuration(Run& run) {
  std::printf("Updating \"%s\" ...\n", run.config_path);
  config_keys[kServerListKey].value = copy_text(run.working_servers.view());
  config_keys[kNameKey].value = std::move(run.proposed_name);
  if (!config_keys[kServerListKey].value) {
    std::printf("Error: %s\n", kOutOfMemory);
    return Step::kFail;
  }
  if (ErrorText error = process_config_file(run.config_path, config_keys,
                                            ConfigMode::kWrite)) {
    std::printf("Error: %s\n", error.c_str());
    return Step::kFail;
  }
  std::puts("Configuration succesfully updated.");
  return Step::kSucceed;
}

Step offer_update(Run& run) {
  Text& domain = config_keys[kDomainKey].value;
  if (is_absent_or_empty(domain.get())) domain = copy_text(".");
  if (!domain) {
    std::puts(kOutOfMemory);
    return Step::kFail;
  }
  const std::string_view servers = run.working_servers.view();
  std::printf("\nVeltra server name: \"%.*s\"\n",
              static_cast<int>(servers.size()), servers.data());
  std::printf("Veltra agent name: \"%s\"\n", or_empty(run.proposed_name.get()));
  std::printf("Veltra agent domain: \"%s\"\n\n", domain.get());

  std::puts(
      "Do you want to update the configuration file of this Veltra agent");
  std::printf("with the above information? ");
  bool wants_update = false;
  if (const Step step = ask(wants_update); step != Step::kGoOn) return step;
  return wants_update ? write_configuration(run) : Step::kSucceed;
}

Step conclude(Run& run) {
  const bool any_answered = run.working_servers.size() > 0;
  const Verdict verdict =
      judge(any_answered, run.any_accepted, run.any_rejected);
  print_outcome(verdict, run.mode);
  if (any_answered && run.mode == Mode::kConfigure) return offer_update(run);
  return Step::kSucceed;
}

}  // namespace

int run_velprobe(int argc, char** argv) {
  Run run;
  Step step = start_up(argc, argv, run);
  if (step == Step::kGoOn) step = read_configuration(run);
  if (step == Step::kGoOn) step = choose_servers(run);
  if (step == Step::kGoOn) step = try_all_servers(run);
  if (step == Step::kGoOn) step = conclude(run);
  return step == Step::kFail ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace velprobe
