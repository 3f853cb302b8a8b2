// The parts of velcheck, each by itself: ranges, the pool, and what the output
// formats make of a report.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "../tools/check/joined.h"
#include "../tools/check/json.h"
#include "../tools/check/plan.h"
#include "../tools/check/plugin_text.h"
#include "../tools/check/pool.h"
#include "../tools/check/prometheus.h"
#include "../tools/check/range.h"
#include "../tools/check/report.h"
#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe::check {
namespace {

using std::string;

TEST(Range, AlertsByTheGuidelinesOfMonitoringPlugins) {
  const struct {
    const char* text;
    std::vector<double> quiet;
    std::vector<double> loud;
  } rows[] = {
      {"10", {0, 10}, {-1, 10.5}},
      {"10:", {10, 1e9}, {9, -1}},
      {"~:10", {-1e9, 10}, {11}},
      {"10:20", {10, 20}, {9, 21}},
      {"@10:20", {9, 21}, {10, 15, 20}},
      {"@~:0", {1}, {0, -5}},
      {"-3:-1.5", {-3, -2}, {-4, 0}},
      {":5", {0, 5}, {6}},
      {"0", {0}, {1}},
  };
  for (const auto& row : rows) {
    Range range;
    ASSERT_TRUE(parse_range(row.text, range)) << row.text;
    for (const double number : row.quiet) {
      EXPECT_FALSE(alerts(range, number)) << row.text << " " << number;
    }
    for (const double number : row.loud) {
      EXPECT_TRUE(alerts(range, number)) << row.text << " " << number;
    }
  }
  for (const char* text : {"", "@", "a", "1:2:3", "2:1", "1e3", "inf", "nan",
                           "~", "1:~", " 1", "1 ", "--1", ".", "0x1"}) {
    Range range;
    EXPECT_FALSE(parse_range(text, range)) << text;
  }
}

TEST(Verdict, CountsServersThatDoNotAccept) {
  const struct {
    std::size_t num_accepted, num_refused;
    const char* warning;
    const char* critical;
    Status status;
  } rows[] = {
      {2, 0, nullptr, nullptr, kOk},       {1, 1, nullptr, nullptr, kWarning},
      {0, 2, nullptr, nullptr, kCritical}, {0, 0, nullptr, nullptr, kUnknown},
      {2, 1, "1", nullptr, kOk},           {1, 2, "1", nullptr, kWarning},
      {0, 2, "5", nullptr, kCritical},     {0, 2, "5", "5", kOk},
      {1, 1, nullptr, "0", kCritical},     {3, 0, nullptr, "1:", kCritical},
  };
  for (const auto& row : rows) {
    Report report;
    report.rows.resize(row.num_accepted + row.num_refused);
    for (std::size_t i = 0; i < report.rows.size(); ++i) {
      report.rows[i].result =
          i < row.num_accepted ? Result::kAccepted : Result::kRefused;
    }
    if (row.warning) {
      static_cast<void>(parse_range(row.warning, report.warning.emplace()));
    }
    if (row.critical) {
      static_cast<void>(parse_range(row.critical, report.critical.emplace()));
    }
    judge(report);
    EXPECT_EQ(report.status, row.status)
        << row.num_accepted << " accepted, " << row.num_refused << " refused, "
        << (row.warning ? row.warning : "-") << " "
        << (row.critical ? row.critical : "-");
  }
}

TEST(Servers, AreReadWithAndWithoutPort) {
  Server server;
  ASSERT_TRUE(parse_server("a", 7, server));
  EXPECT_EQ(server.name + std::to_string(server.port), "a7");
  ASSERT_TRUE(parse_server("10.0.0.1:65535", 7, server));
  EXPECT_EQ(server.name + std::to_string(server.port), "10.0.0.165535");
  for (const string text : {"", ":1", "a:", "a:0", "a:65536", "a:1x", "::1",
                            "[::1]:1", "a:-1", "a: 1"}) {
    EXPECT_FALSE(parse_server(text, 7, server)) << text;
  }
}

// Work notes how many jobs run at once, in all and at one address.
struct Work {
  std::mutex mutex;
  std::map<std::size_t, int> running;  // by address
  int all_running = 0, most = 0, most_of_one = 0;
  std::vector<int> done;
  std::promise<void> finished;
};

TEST(Pool, DoesEveryJobOnceWithinItsLimits) {
  constexpr std::size_t kJobs = 300, kAddresses = 5;
  const auto work = std::make_shared<Work>();
  work->done.resize(kJobs);
  const auto pool = std::make_shared<Pool>(7, 2, [work](std::size_t job) {
    std::unique_lock lock(work->mutex);
    int& here = work->running[job % kAddresses];
    work->most_of_one = std::max(work->most_of_one, ++here);
    work->most = std::max(work->most, ++work->all_running);
    lock.unlock();
    usleep(200);
    lock.lock();
    --here;
    --work->all_running;
    ++work->done[job];
    if (std::count(work->done.begin(), work->done.end(), 1) == kJobs) {
      work->finished.set_value();
    }
  });
  for (std::size_t job = 0; job < kJobs; ++job) {
    const auto last = static_cast<std::uint8_t>(job % kAddresses);
    ASSERT_TRUE(pool->add(job, {127, 0, 0, last}));
  }
  work->finished.get_future().wait();
  const std::lock_guard lock(work->mutex);
  EXPECT_LE(work->most, 7);
  EXPECT_EQ(work->most_of_one, 2);
}

// --- Formats ----------------------------------------------------------------

Row row_of(const string& server, Result result, const string& text = "") {
  Row row;
  row.agent = "web1";
  row.server = server;
  row.port = kDefaultServerPort;
  row.result = result;
  row.text = text;
  return row;
}

Report report_of(std::vector<Row> rows) {
  Report report;
  report.name = "web1";
  report.seconds = 0.4123;
  report.timeout = 10;
  report.rows = std::move(rows);
  judge(report);
  return report;
}

const string kRefusal = "Veltra Server rejected us: ";
// What somebody else may have chosen: for a terminal, a log, a page, a label.
const string kHostile =
    "a|b\nc\r\x1b[2J\x9b\xff\xc3\"\\<script>{}\xe2\x80\xa8\x7f\xed\xa0\x80";

Report hostile_report() {
  Row row = row_of(kHostile, Result::kRefused, kRefusal + kHostile);
  row.agent = row.domain = kHostile;
  Report report = report_of({row, row_of("b", Result::kAccepted)});
  report.rows[1].offered_version = 514;
  report.remarks = {kHostile};
  report.name = kHostile;
  return report;
}

TEST(PluginText, TellsVerdictReasonsAndFigures) {
  const string text = plugin_text(
      report_of({row_of("a", Result::kAccepted),
                 row_of("b", Result::kRefused, kRefusal + "No Node")}));
  EXPECT_EQ(text,
            "VELCHECK WARNING - 1 of 2 servers accept \"web1\"; b: refused: No "
            "Node | accepted=1;;;0;2 refused=1 time=0.412s;;;0;10\n"
            "b: refused: No Node [0.000s]\n"
            "a: accepted [0.000s]\n");
}

TEST(PluginText, GathersManyServersWithOneReason) {
  std::vector<Row> rows;
  for (int i = 0; i < 500; ++i) {
    rows.push_back(
        row_of(joined({"s", std::to_string(i)}), Result::kTimeout, "late"));
  }
  const string text = plugin_text(report_of(rows));
  EXPECT_EQ(text,
            "VELCHECK CRITICAL - 0 of 500 servers accept \"web1\"; s0, s1, s2 "
            "and 497 more: timeout: late | accepted=0;;;0;500 timeout=500 "
            "time=0.412s;;;0;10\n"
            "500 servers (s0, s1, s2 and 497 more): timeout: late\n");
}

TEST(PluginText, GathersNamesThatDoNotResolve) {
  std::vector<Row> rows;
  for (const char* name : {"a", "b", "c", "d"}) {
    rows.push_back(row_of(
        name, Result::kUnresolved,
        joined({"Error resolving \"", name, "\": Host name not found"})));
  }
  const string text = plugin_text(report_of(rows));
  EXPECT_TRUE(
      text.ends_with("4 servers (a, b, c and 1 more): unresolved: Error "
                     "resolving: Host name not found\n"))
      << text;
}

TEST(PluginText, LetsNobodyElseWriteItsLines) {
  const string text = plugin_text(hostile_report());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
  EXPECT_EQ(std::count(text.begin(), text.end(), '|'), 1);
  for (const char c : text) {
    EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= ' ') << text;
  }
  EXPECT_EQ(text.find('\x9b'), text.npos);
  for (const char* turning : {"\u061C", "\u200F", "\u2028", "\u2069"}) {
    const string shown =
        plugin_text(report_of({row_of(turning, Result::kAccepted)}));
    EXPECT_EQ(shown.find(turning), shown.npos);
  }
}

TEST(Prometheus, EscapesItsLabels) {
  const string text = prometheus_text(hostile_report());
  const string label =
      "a|b\\nc\r\x1b[2J\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\\\"\\\\<script>{}";
  EXPECT_NE(text.find("velcheck_server_accepts{agent=\"" + label), text.npos)
      << text;
  EXPECT_NE(text.find("velcheck_servers{result=\"refused\"} 1\n"), text.npos);
}

TEST(Prometheus, BeginsNoNewSeriesForAnotherAddress) {
  Row row = row_of("b", Result::kAccepted);
  row.is_named = false;
  Report report = report_of({row});
  const auto series = [&](const char* agent, const char* address) {
    report.rows[0].agent = agent;
    report.rows[0].address = address;
    return prometheus_text(report);
  };
  EXPECT_EQ(series("10.0.0.1", "10.1.0.1"), series("10.0.0.2", ""));
  report.all_addresses = true;
  EXPECT_NE(series("10.0.0.1", "10.1.0.1"), series("10.0.0.1", "10.1.0.2"));
}

TEST(Json, SurvivesBytesThatAreNoText) {
  const string printed = json_text(hostile_report());
  for (const char c : printed) {
    EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << printed;
  }
  const auto json = nlohmann::json::parse(printed);
  const string text = json["servers"][0]["text"];
  EXPECT_TRUE(text.starts_with(kRefusal + "a|b\nc\r\x1b[2J\xEF\xBF\xBD"));
  EXPECT_EQ(json["servers"][1]["offered_version"], 514);
  EXPECT_EQ(json["counts"]["refused"], 1);
}

TEST(Json, FollowsItsSchema) {
  const string validate =
      "import json, jsonschema, sys\n"
      "schema = json.load(open(sys.argv[1]))\n"
      "jsonschema.Draft7Validator.check_schema(schema)\n"
      "for name in sys.argv[2:]:\n"
      "    jsonschema.validate(json.load(open(name)), schema)\n";
  const char python[] = "/usr/bin/python3";
  if (run({python, "-c", "import jsonschema"}).status != 0) {
    GTEST_SKIP() << "python3-jsonschema is missing";
  }
  TempFolder folder;
  Report failed;
  failed.error = "no file";
  judge(failed);
  Report named = report_of({row_of("a", Result::kAccepted)});
  named.rows[0].address = "10.0.0.1";
  const string schema =
      string(VELPROBE_SOURCE_DIR) + "/docs/velcheck.schema.json";
  const Finished result =
      run({python, "-c", validate, schema,
           folder.write("hostile", json_text(hostile_report())),
           folder.write("failed", json_text(failed)),
           folder.write("empty", json_text(report_of({}))),
           folder.write("named", json_text(named))});
  EXPECT_EQ(result.status, 0) << result.output;
  // A schema that lets everything pass would be no help.
  string wrong = json_text(named);
  wrong.replace(wrong.find("\"accepted\",\"text\""), 10, "\"granted\"");
  EXPECT_NE(
      run({python, "-c", validate, schema, folder.write("w", wrong)}).status,
      0);
}

// --- Advice -----------------------------------------------------------------

// The entries of the troubleshooting page, each a paragraph of its own, without
// its marks.
std::vector<string> entries_of_the_page() {
  std::ifstream file(string(VELPROBE_SOURCE_DIR) + "/docs/troubleshooting.md");
  std::vector<string> entries(1);
  for (string line; std::getline(file, line);) {
    if (line.empty() || line.starts_with("- ") || line.starts_with("#")) {
      entries.emplace_back();
    }
    entries.back() +=
        joined({" ", std::regex_replace(line, std::regex("`|\\\\$"), "")});
  }
  for (string& entry : entries) {
    entry = std::regex_replace(entry, std::regex("\\s+"), " ");
  }
  return entries;
}

TEST(Advice, IsWhatTheTroubleshootingPageSays) {
  const std::vector<string> entries = entries_of_the_page();
  ASSERT_GT(entries.size(), 50U);
  for (const Advice& advice : all_advice()) {
    // In the middle of a sentence it begins and ends otherwise.
    const string rest(advice.step + 1, std::strlen(advice.step) - 2);
    const auto gives = [&](const string& entry) {
      return entry.find(advice.phrase) != entry.npos &&
             entry.find(rest) != entry.npos;
    };
    EXPECT_TRUE(std::any_of(entries.begin(), entries.end(), gives))
        << advice.phrase << ": " << advice.step;
  }
}

}  // namespace
}  // namespace velprobe::check
