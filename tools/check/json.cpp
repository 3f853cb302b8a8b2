#include "json.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "joined.h"

namespace velprobe::check {
namespace {

using Json = nlohmann::ordered_json;

// In ASCII: a terminal obeys U+009B and U+202E, too.
std::string printed(const Json& json) {
  return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

Json text_or_null(std::string_view text) {
  return text.empty() ? Json() : Json(text);
}

double to_milliseconds(double seconds) {
  return std::round(seconds * 1000) / 1000;
}

Json object_of(const Row& row) {
  return {{"agent", text_or_null(row.agent)},
          {"named", row.is_named},
          {"domain", row.domain},
          {"host", row.host},
          {"server", row.server},
          {"address", text_or_null(row.address)},
          {"port", row.port},
          {"source", source_name(row.source)},
          {"result", result_name(row.result)},
          {"text", row.text},
          {"advice", advice_for(row.result, row.text)},
          {"offered_version",
           row.offered_version ? Json(*row.offered_version) : Json()},
          {"seconds", to_milliseconds(row.seconds)},
          {"time", timestamp(row.time)},
          {"outdated", row.is_outdated}};
}

Json counts_of(const Report& report) {
  Json counts = {{"servers", report.rows.size()}};
  for (const Result result : kAllResults) {
    counts[result_name(result)] = num_with(report, result);
  }
  return counts;
}

}  // namespace

std::string json_row(const Row& row) {
  return printed(object_of(row));
}

std::string json_text(const Report& report) {
  const Json head = {{"schema", kSchema},
                     {"status", kStatusNames[report.status]},
                     {"error", text_or_null(report.error)},
                     {"name", text_or_null(report.name)},
                     {"domain", report.domain},
                     {"started", timestamp(report.started)},
                     {"seconds", to_milliseconds(report.seconds)},
                     {"all_addresses", report.all_addresses},
                     {"agents", report.num_agents},
                     {"counts", counts_of(report)},
                     {"remarks", report.remarks}};
  // The rows are printed one by one: as one value they would take many times
  // the memory.
  std::string text = printed(head);
  text.pop_back();
  text += ",\"servers\":[";
  const char* separator = "\n";
  for (const Row& row : report.rows) {
    text += joined({separator, json_row(row)});
    separator = ",\n";
  }
  text += "]}\n";
  return text;
}

std::string valid_utf8(std::string_view text) {
  return Json::parse(printed(Json(text))).get<std::string>();
}

}  // namespace velprobe::check
