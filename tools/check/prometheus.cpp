#include "prometheus.h"

#include <functional>
#include <string_view>

#include "json.h"

namespace velprobe::check {
namespace {

// label prints name="value" with the escapes that the format knows.
std::string label(std::string_view name, std::string_view value) {
  std::string text = std::string(name) + "=\"";
  for (const char c : valid_utf8(value)) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return text + "\"";
}

std::string labels_of(const Row& row) {
  return label("agent", row.agent) + "," + label("server", row.server) + "," +
         label("address", row.address) + "," +
         label("port", std::to_string(row.port)) + "," +
         label("source", source_name(row.source));
}

std::string heading(const std::string& name, const char* help) {
  return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

std::string single(const std::string& name, const char* help,
                   const std::string& value) {
  return heading(name, help) + name + " " + value + "\n";
}

std::string counts(const Report& report) {
  const std::string name = "velcheck_servers";
  std::string text = heading(name, "Servers by result.");
  for (const Result result : kAllResults) {
    text += name + "{" + label("result", result_name(result)) + "} " +
            std::to_string(num_with(report, result)) + "\n";
  }
  return text;
}

// per_row prints a metric that each row has; line gives further labels, each
// with a comma in front, and the value.
std::string per_row(
    const Report& report, const std::string& name, const char* help,
    const std::function<std::pair<std::string, std::string>(const Row&)>&
        line) {
  if (report.rows.empty()) return "";
  std::string text = heading(name, help);
  for (const Row& row : report.rows) {
    const auto& [labels, value] = line(row);
    text += name + "{" + labels_of(row) + labels + "} " + value + "\n";
  }
  return text;
}

std::string epoch_seconds(std::chrono::system_clock::time_point time) {
  return seconds_text(
      std::chrono::duration<double>(time.time_since_epoch()).count());
}

}  // namespace

std::string prometheus_text(const Report& report) {
  return single("velcheck_status",
                "Verdict: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.",
                std::to_string(report.status)) +
         single("velcheck_last_run_timestamp_seconds",
                "When the run began, since 1970.",
                epoch_seconds(report.started)) +
         single("velcheck_run_duration_seconds", "How long the run took.",
                seconds_text(report.seconds)) +
         counts(report) +
         per_row(report, "velcheck_server_accepts",
                 "Whether the server accepts the agent.",
                 [](const Row& row) {
                   const bool accepted = row.result == Result::kAccepted;
                   return std::pair("", accepted ? "1" : "0");
                 }) +
         per_row(report, "velcheck_server_result",
                 "What the server answered, in the label result; always 1.",
                 [](const Row& row) {
                   const std::string result = result_name(row.result);
                   return std::pair("," + label("result", result), "1");
                 }) +
         per_row(report, "velcheck_server_duration_seconds",
                 "How long look-up and conversation took.", [](const Row& row) {
                   return std::pair("", seconds_text(row.seconds));
                 });
}

}  // namespace velprobe::check
