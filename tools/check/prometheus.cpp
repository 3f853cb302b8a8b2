#include "prometheus.h"

#include <set>
#include <string_view>

#include "joined.h"
#include "json.h"

namespace velprobe::check {
namespace {

// label prints name="value" with the escapes that the format knows.
std::string label(std::string_view name, std::string_view value) {
  std::string escaped;
  for (const char c : valid_utf8(value)) {
    if (c == '\\' || c == '"') escaped += '\\';
    if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return joined({name, "=\"", escaped, "\""});
}

// What may change from run to run stays out, lest each change begin a new
// series: an address in the agent's place, and that of the server unless it
// tells rows apart. The host that asked is told where there are several.
std::string labels_of(const Row& row, const Report& report) {
  std::string labels =
      joined({label("agent", row.is_named ? row.agent : ""), ",",
              label("domain", row.domain), ",", label("server", row.server),
              ",", label("port", std::to_string(row.port)), ",",
              label("source", source_name(row.source))});
  if (report.is_merged) labels += joined({",", label("host", row.host)});
  if (!report.all_addresses) return labels;
  return joined({labels, ",", label("address", row.address)});
}

std::string heading(std::string_view name, std::string_view help) {
  return joined({"# HELP ", name, " ", help, "\n# TYPE ", name, " gauge\n"});
}

std::string sample(std::string_view name, std::string_view labels,
                   std::string_view value) {
  return joined({name, "{", labels, "} ", value, "\n"});
}

std::string single(std::string_view name, std::string_view help,
                   std::string_view value) {
  return joined({heading(name, help), name, " ", value, "\n"});
}

std::string counts(const Report& report) {
  constexpr char kName[] = "velcheck_servers";
  std::string text = heading(kName, "Agents at servers, by result.");
  for (const Result result : kAllResults) {
    text += sample(kName, label("result", result_name(result)),
                   std::to_string(num_with(report, result)));
  }
  return text;
}

// Point is what one row has of a metric: further labels, and the value.
struct Point {
  std::string labels;
  std::string value;
};

std::string per_row(const Report& report, std::string_view name,
                    std::string_view help, Point (*point_of)(const Row&)) {
  if (report.rows.empty()) return "";
  std::string text = heading(name, help);
  // A sample that is there twice spoils all of them.
  std::set<std::string> known;
  for (const Row& row : report.rows) {
    std::string labels = labels_of(row, report);
    if (!known.insert(labels).second) continue;
    const Point point = point_of(row);
    if (!point.labels.empty()) labels += joined({",", point.labels});
    text += sample(name, labels, point.value);
  }
  return text;
}

Point acceptance(const Row& row) {
  return {"", row.result == Result::kAccepted ? "1" : "0"};
}

Point outcome(const Row& row) {
  return {label("result", result_name(row.result)), "1"};
}

Point duration(const Row& row) {
  return {"", seconds_text(row.seconds)};
}

std::string epoch_seconds(std::chrono::system_clock::time_point time) {
  return seconds_text(
      std::chrono::duration<double>(time.time_since_epoch()).count());
}

}  // namespace

std::string prometheus_text(const Report& report) {
  return joined(
      {single("velcheck_status",
              "Verdict: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.",
              std::to_string(report.status)),
       single("velcheck_last_run_timestamp_seconds",
              "When the run began, since 1970.", epoch_seconds(report.started)),
       single("velcheck_run_duration_seconds", "How long the run took.",
              seconds_text(report.seconds)),
       counts(report),
       per_row(report, "velcheck_server_accepts",
               "Whether the server accepts the agent.", acceptance),
       per_row(report, "velcheck_server_result",
               "What the server answered, in the label result; always 1.",
               outcome),
       per_row(report, "velcheck_server_duration_seconds",
               "How long look-up and conversation took.", duration)});
}

}  // namespace velprobe::check
