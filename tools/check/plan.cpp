#include "plan.h"

#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

#include "config/settings.h"
#include "text_file.h"
#include "util/text.h"

namespace velprobe::check {
namespace {

constexpr char kNotAServer[] = "not SERVER or SERVER:PORT";

std::string or_empty(const char* text) {
  return text != nullptr ? text : "";
}

bool parse_port(std::string_view text, std::uint16_t& out_port) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, out_port);
  return error == std::errc() && stop == end && out_port > 0;
}

ErrorText take_config(const Options& options, Deadline deadline, Plan& plan) {
  AgentSettings settings;
  if (options.config != nullptr) {
    std::string text;
    if (ErrorText error = read_text_file(options.config, deadline, text)) {
      return error;
    }
    if (ErrorText error = parse_settings(text, settings)) return error;
  }
  const char* port = settings.server_port.get();
  plan.port =
      options.port.value_or(parse_server_port(port, kDefaultServerPort));
  const char* name = options.name ? options.name : settings.name.get();
  const char* domain = options.domain ? options.domain : settings.domain.get();
  plan.agents = {{or_empty(name), or_empty(domain)}};
  if (!settings.server_list) return {};

  const Text servers = split_server_list(settings.server_list.get());
  if (!servers) return kOutOfMemory;
  for (const char* server = servers.get(); *server != '\0';
       server = next_text(server)) {
    add_server(plan, {server, plan.port, Source::kConfig});
  }
  return {};
}

ErrorText take_servers_from(const char* path, Deadline deadline, Plan& plan) {
  std::string text;
  if (ErrorText error = read_input(path, deadline, text)) return error;
  std::string last;
  const std::size_t bad_line =
      for_each_entry(text, [&](std::string_view entry) {
        last = entry;
        Server server;
        if (!parse_server(entry, plan.port, server)) return false;
        add_server(plan, std::move(server));
        return true;
      });
  if (bad_line == 0) return {};
  return format_error_text("%s, line %zu: %s: \"%s\"", input_title(path),
                           bad_line, kNotAServer, last.c_str());
}

// The domain of the file or the command line is that of all who have none.
ErrorText take_agents_from(const char* path, Deadline deadline, Plan& plan) {
  const std::string domain = plan.agents.front().domain;
  plan.agents.clear();
  return read_agents(path, deadline, domain, plan.agents);
}

ErrorText take_arguments(const Options& options, Plan& plan) {
  for (const char* argument : options.servers) {
    Server server;
    if (!parse_server(argument, plan.port, server)) {
      return format_error_text("%s: \"%s\"", kNotAServer, argument);
    }
    add_server(plan, std::move(server));
  }
  return {};
}

}  // namespace

bool add_server(Plan& plan, Server server) {
  if (!plan.known.emplace(server.name, server.port).second) return false;
  plan.servers.push_back(std::move(server));
  return true;
}

bool parse_server(std::string_view text, std::uint16_t default_port,
                  Server& out_server) {
  const std::size_t colon = text.find(':');
  std::uint16_t port = default_port;
  if (colon != text.npos && !parse_port(text.substr(colon + 1), port)) {
    return false;
  }
  const std::string_view name = text.substr(0, colon);
  if (name.empty() || name.find('\0') != name.npos) return false;
  out_server = {std::string(name), port, Source::kArgument};
  return true;
}

ErrorText make_plan(const Options& options, Deadline deadline, Plan& out_plan) {
  if (ErrorText error = take_config(options, deadline, out_plan)) return error;
  if (options.agents_from != nullptr) {
    if (ErrorText error =
            take_agents_from(options.agents_from, deadline, out_plan)) {
      return error;
    }
  }
  if (options.servers_from != nullptr) {
    if (ErrorText error =
            take_servers_from(options.servers_from, deadline, out_plan)) {
      return error;
    }
  }
  return take_arguments(options, out_plan);
}

}  // namespace velprobe::check
