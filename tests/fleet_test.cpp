// What velcheck has for many agents: names from a file, the pace, results read
// back and merged, and the page.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "../tools/check/agents.h"
#include "../tools/check/json.h"
#include "../tools/check/merge.h"
#include "../tools/check/page.h"
#include "../tools/check/page_matrix.h"
#include "../tools/check/page_text.h"
#include "../tools/check/plugin_text.h"
#include "../tools/check/pool.h"
#include "../tools/check/prometheus.h"
#include "../tools/check/result_file.h"
#include "support/program.h"
#include "support/temp_folder.h"

namespace velprobe::check {
namespace {

using std::string;
using Json = nlohmann::json;
using Words = std::vector<string>;
using namespace std::chrono_literals;

// --- Names and pace ---------------------------------------------------------

TEST(Agents, AreReadWithAndWithoutDomain) {
  TempFolder folder;
  const string path = folder.write(
      "names", "# all of them\n\n web1 \r\nweb2\tshop # mine\nweb1 d\n<b>");
  std::vector<Agent> agents;
  const ErrorText error = read_agents(path.c_str(), kNoDeadline, "d", agents);
  ASSERT_FALSE(error) << error.c_str();
  string told;
  for (const Agent& agent : agents) {
    told += agent.name + "/" + agent.domain + " ";
  }
  EXPECT_EQ(told, "web1/d web2/shop <b>/d ");
}

TEST(Agents, TellWhichLineIsBad) {
  const struct {
    string text, complaint;
  } rows[] = {
      {"a\nb c d\n", ", line 2: not NAME or NAME DOMAIN"},
      {"a\n\n" + string(257, 'n'), ", line 3: a name has at most 256 bytes"},
      {"a " + string(1025, 'd'), ", line 1: a name has at most 256 bytes"},
      {"a\x1b[2J", ", line 1: a control character"},
      {string("a\0b", 3), ", line 1: a control character"},
      {"# nobody\n", " names no agent"},
  };
  TempFolder folder;
  for (const auto& row : rows) {
    const string path = folder.write("names", row.text);
    std::vector<Agent> agents;
    const ErrorText error = read_agents(path.c_str(), kNoDeadline, "", agents);
    ASSERT_TRUE(error) << row.complaint;
    EXPECT_TRUE(string(error.c_str()).starts_with(path + row.complaint))
        << error.c_str();
  }
}

TEST(Pool, KeepsItsPaceAtEachAddress) {
  constexpr std::size_t kJobs = 20;
  constexpr auto kInterval = 10ms;
  struct Work {
    std::mutex mutex;
    std::vector<std::chrono::steady_clock::time_point> starts;
    std::size_t num_done = 0;
    std::promise<void> finished;
  };
  const auto work = std::make_shared<Work>();
  const auto pool = std::make_shared<Pool>(
      8, 4,
      [work](std::size_t job) {
        const std::lock_guard lock(work->mutex);
        if (job % 2 == 0) {
          work->starts.push_back(std::chrono::steady_clock::now());
        }
        if (++work->num_done == 2 * kJobs) work->finished.set_value();
      },
      kInterval);
  for (std::size_t job = 0; job < 2 * kJobs; ++job) {
    const auto last = static_cast<std::uint8_t>(job % 2);
    ASSERT_TRUE(pool->add(job, {127, 0, 0, last}));
  }
  work->finished.get_future().wait();
  const std::lock_guard lock(work->mutex);
  ASSERT_EQ(work->starts.size(), kJobs);
  // A load can only delay; one start at most is made up for.
  EXPECT_GE(work->starts.back() - work->starts.front(),
            (kJobs - 2) * kInterval);
}

// --- Results read back ------------------------------------------------------

constexpr std::chrono::system_clock::time_point kNoon{1795262400s};

Row row_of(const string& agent, const string& server,
           Result result = Result::kAccepted, const string& text = "") {
  Row row;
  row.agent = agent;
  row.host = "desk";
  row.server = server;
  row.address = "10.0.0.1";
  row.port = kDefaultServerPort;
  row.result = result;
  row.text = text;
  row.time = kNoon;
  return row;
}

Report report_of(std::vector<Row> rows) {
  Report report;
  report.started = kNoon;
  report.rows = std::move(rows);
  judge(report);
  return report;
}

const string kHostile =
    "</script><script>alert(1)</script>\"'&\x1b\xff\xe2\x80\xae&lt;";

TEST(ResultFile, IsWhatWasWritten) {
  Row odd = row_of(kHostile, "b", Result::kRefused, kHostile);
  odd.domain = "d";
  odd.port = 7;
  odd.source = Source::kScan;
  odd.offered_version = 514;
  odd.seconds = 1.25;
  odd.is_outdated = true;
  Row nameless = row_of("", "c", Result::kUnresolved, "x");
  nameless.is_named = false;
  nameless.address = "";
  Report report = report_of({row_of("a", "b"), odd, nameless});
  report.all_addresses = true;
  ResultFile file;
  ASSERT_EQ(parse_result(json_text(report), file), "");
  EXPECT_TRUE(file.all_addresses);
  ASSERT_EQ(file.rows.size(), 3U);
  // What is outdated is found out anew.
  report.rows[1].is_outdated = false;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(json_row(file.rows[i]), json_row(report.rows[i]));
  }
}

TEST(ResultFile, TellsWhatIsWrong) {
  const string good = json_text(report_of({row_of("a", "b")}));
  const auto with = [&](const string& old_text, const string& new_text) {
    string json = good;
    json.replace(json.find(old_text), old_text.size(), new_text);
    return json;
  };
  const struct {
    string json, complaint;
  } rows[] = {
      {"", "no whole JSON text, wrong at byte 1"},
      {"[]", "no JSON object"},
      {"7", "no JSON object"},
      {"{}", "no \"schema\""},
      {good + "x", "no whole JSON text"},
      {with("\"schema\":1", "\"schema\":2"), "a wrong \"schema\""},
      {with("\"schema\":1", "\"schema\":[1]"), "a list or an object"},
      {with("\"servers\":[", "\"rows\":["), "no \"servers\""},
      {with("\"remarks\":[]", "\"remarks\":[1]"), "a wrong \"remarks\""},
      {with("\"servers\":[", "\"servers\":[1,"), "a wrong \"servers\""},
      {with("\"servers\":[", "\"servers\":[{},"), "servers[0]: no \"agent\""},
      {with("\"agent\":\"a\"", "\"agent\":7"), "servers[0]: a wrong \"agent\""},
      {with("\"agent\":\"a\"", "\"agent\":{}"), "servers[0]: a list or an"},
      {with("\"accepted\",\"t", "\"new\",\"t"), "a wrong \"result\""},
      {with("\"port\":3241", "\"port\":65536"), "a wrong \"port\""},
      {with("\"port\":3241", "\"port\":1.5"), "a wrong \"port\""},
      {with("10.0.0.1", "10.0.0.<b>"), "a wrong \"address\""},
      {with("\"time\":\"2026-11-21", "\"time\":\"2026-02-31"), "a wrong \"t"},
      {with("\"time\":\"2026", "\"time\":\"9999"), "a wrong \"time\""},
      {with("\"seconds\":0.0", "\"seconds\":-1"), "a wrong \"seconds\""},
      {with("\"seconds\":0.0", "\"seconds\":1e999"), "no whole JSON text"},
      {"{\"x\":" + string(100, '['), "nested too deeply"},
      {"{\"x\":" + string(50, '{'), "no whole JSON text"},
  };
  for (const auto& row : rows) {
    ResultFile file;
    const string complaint = parse_result(row.json, file);
    EXPECT_NE(complaint.find(row.complaint), complaint.npos) << row.json << "\n"
                                                             << complaint;
  }
  for (std::size_t size = 0; size + 1 < good.size(); ++size) {
    ResultFile file;
    EXPECT_NE(parse_result(good.substr(0, size), file), "") << size;
  }
  // A later version may add what it likes.
  ResultFile file;
  EXPECT_EQ(parse_result(
                with("\"remarks\"", "\"new\":[{\"a\":[1]}],\"remarks\""), file),
            "");
}

// --- Merging ----------------------------------------------------------------

Report merged(const std::vector<Report>& reports) {
  TempFolder folder;
  Words paths;
  for (const Report& report : reports) {
    paths.push_back(
        folder.write(std::to_string(paths.size()), json_text(report)));
  }
  std::vector<const char*> names;
  for (const string& path : paths) names.push_back(path.c_str());
  Report all;
  merge_results(names, kNoDeadline, all);
  judge(all);
  return all;
}

TEST(Merge, ShowsBothWhereResultsDisagree) {
  Row later = row_of("web1", "a", Result::kRefused, "No Node");
  later.time += 1h;
  later.host = "web1";
  Row repeated = row_of("web2", "a");
  repeated.time += 2h;
  const Report report =
      merged({report_of({row_of("web1", "a"), row_of("web2", "a")}),
              report_of({later}), report_of({repeated})});
  ASSERT_EQ(report.rows.size(), 3U);
  EXPECT_EQ(report.rows[0].result, Result::kRefused);
  EXPECT_FALSE(report.rows[0].is_outdated);
  EXPECT_EQ(report.rows[1].result, Result::kAccepted);
  EXPECT_TRUE(report.rows[1].is_outdated);
  EXPECT_EQ(report.rows[2].time, repeated.time);
  ASSERT_EQ(report.remarks.size(), 1U);
  EXPECT_EQ(report.remarks[0],
            "results disagree: web1 at a: refused (2026-11-21T13:00:00.000Z "
            "from web1), accepted (2026-11-21T12:00:00.000Z from desk)");
  const string page = page_html(report);
  EXPECT_NE(page.find("12:00:00 UTC</time> (outdated)"), page.npos);
  EXPECT_EQ(report.status, kWarning);
  const string text = plugin_text(report);
  EXPECT_TRUE(
      text.starts_with("VELCHECK WARNING - 2 of 3 accepted: 2 agents "
                       "at 1 server; web1 at a: refused: No Node"))
      << text;
}

TEST(Merge, TellsHostsWithoutANameApart) {
  Row one = row_of("10.1.0.1", "a");
  one.is_named = false;
  Row other = row_of("", "a", Result::kUnreachable, "no way");
  other.is_named = false;
  other.host = "web2";
  const Report report = merged({report_of({one}), report_of({other})});
  EXPECT_EQ(report.num_agents, 2U);
  EXPECT_TRUE(report.remarks.empty());
}

TEST(Merge, NeverCallsItOkayWhenARunFailed) {
  Report failed;
  failed.error = "no file";
  judge(failed);
  const Report report = merged({report_of({row_of("a", "b")}), failed});
  EXPECT_EQ(report.status, kWarning);
  EXPECT_TRUE(report.remarks.at(0).ends_with(": no file"));
}

TEST(Merge, GivesNoSampleTwice) {
  Row moved = row_of("a", "b", Result::kTimeout, "late");
  moved.address = "10.0.0.2";
  moved.time += 1h;
  Row in_domain = row_of("a", "b");
  in_domain.domain = "d";
  const Report report =
      merged({report_of({row_of("a", "b"), in_domain}), report_of({moved})});
  std::istringstream lines(prometheus_text(report));
  std::set<string> samples;
  for (string line; std::getline(lines, line);) {
    if (line[0] == '#') continue;
    const auto end = line.rfind(' ');
    EXPECT_TRUE(samples.insert(line.substr(0, end)).second) << line;
    // Of two results about a pair the later one counts.
    if (line.starts_with("velcheck_server_accepts{agent=\"a\",domain=\"\"")) {
      EXPECT_EQ(line.substr(end), " 0");
    }
  }
  EXPECT_GT(samples.size(), 8U);
}

// --- The page ---------------------------------------------------------------

TEST(PageText, ShowsWhatItMustNotObey) {
  const struct {
    string text, html;
  } rows[] = {
      {"<script>&\"'", "&lt;script&gt;&amp;&quot;&#39;"},
      {"a\x1b\n\x7f\xc2\x85", "a[U+001B][U+000A][U+007F][U+0085]"},
      {"\xe2\x80\xaeoot\xe2\x81\xa6", "[U+202E]oot[U+2066]"},
      {"\xf3\xa0\x80\xa1", "[U+E0021]"},
      {"Gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80",
       "Gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"},
      {"\xff<\xed\xa0\x80",
       "\xef\xbf\xbd&lt;\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {string("\0", 1), "[U+0000]"},
  };
  for (const auto& row : rows) EXPECT_EQ(html_text(row.text), row.html);
}

std::size_t count(const string& text, const string& part) {
  std::size_t number = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; ++at) {
    ++number;
  }
  return number;
}

TEST(Page, LetsNobodyElseWriteIt) {
  Row row = row_of(kHostile, kHostile, Result::kRefused, kHostile);
  row.domain = row.host = kHostile;
  Report report = report_of({row, row_of("b", kHostile)});
  report.error = kHostile;
  report.remarks = {kHostile};
  report.is_merged = true;
  const string page = page_html(report);
  EXPECT_EQ(count(page, "<script"), 1U);
  EXPECT_EQ(count(page, "</script"), 1U);
  EXPECT_EQ(page.find('\x1b'), page.npos);
  EXPECT_EQ(page.find("\xe2\x80\xae"), page.npos);
  EXPECT_EQ(count(page, "alert(1)"), count(page, "&lt;script&gt;alert(1)"));
}

TEST(Page, PutsTroubleFirstAndThenNamesInOrder) {
  const Report report =
      report_of({row_of("web10", "a"), row_of("web2", "a"), row_of("web3", "a"),
                 row_of("web3", "b", Result::kTimeout, "late")});
  const Matrix matrix = matrix_of(report);
  string order;
  for (const MatrixRow& row : matrix.rows) order += row.heading.name + " ";
  EXPECT_EQ(order, "web3 web2 web10 ");
  EXPECT_FALSE(matrix.is_list);
  EXPECT_EQ(matrix.reasons[0].text, "late");
  EXPECT_EQ(count(page_html(report), "not asked"), 2U);
}

TEST(Page, StaysAsBigAsWhatItShows) {
  std::vector<Row> apart, at_one;
  for (int i = 0; i < 2000; ++i) {
    const string number = std::to_string(i);
    apart.push_back(row_of("web" + number, "s" + number));
    at_one.push_back(row_of("web", "s" + number));
  }
  EXPECT_LT(page_html(report_of(apart)).size(), 2'000'000U);
  const Matrix matrix = matrix_of(report_of(at_one));
  EXPECT_TRUE(matrix.has_server_rows);
  EXPECT_EQ(matrix.rows.size(), 2000U);
}

// --- The program ------------------------------------------------------------

Finished check(Words options, const velprobe::Options& how = {}) {
  options.insert(options.begin(), VELCHECK_PROGRAM);
  return run(options, how);
}

TEST(Fleet, AsksForEachAgentAtEachServer) {
  ::velprobe::Server good;
  ::velprobe::Server picky({"--node", "web1", "--reason", "No Node"});
  TempFolder folder;
  const string page = folder.path("page.html");
  const auto name_of = [](const ::velprobe::Server& server) {
    return "127.0.0.1:" + std::to_string(server.port);
  };
  const Finished result = check({"--agents-from", "-", "-d", "d", name_of(good),
                                 name_of(picky), "--json", "--html", page},
                                {.input = "web1\nweb2 e\n"});
  EXPECT_EQ(result.status, 1);
  const Json json = Json::parse(result.output);
  EXPECT_EQ(json["counts"]["accepted"], 3);
  EXPECT_EQ(json["agents"], 2);
  const Json refused = json["servers"][3];
  EXPECT_EQ(refused["agent"], "web2");
  EXPECT_EQ(refused["domain"], "e");
  EXPECT_EQ(refused["result"], "refused");
  EXPECT_TRUE(folder.read("page.html")->starts_with("<!DOCTYPE html>"));

  // Many results of which one is no result: the others are there.
  const string file = folder.write("a.json", result.output);
  const string half = folder.write("b.json", result.output.substr(0, 700));
  EXPECT_EQ(check({"--merge", file, "--html", page}).status, 1);
  const Finished broken = check({"--merge", file, half, "--json"});
  EXPECT_EQ(broken.status, 3);
  const Json all = Json::parse(broken.output);
  EXPECT_TRUE(all["error"].get<string>().starts_with(half)) << all["error"];
  EXPECT_EQ(all["counts"]["servers"], 4);
}

TEST(Fleet, EndsWithUnknownAfterBadUsage) {
  const Words rows[] = {
      {"--merge"},
      {"--merge", "/nonexistent"},
      {"--merge", "-s", "a"},
      {"--merge", "--agents-from", "-", "a"},
      {"--agents-from", "/nonexistent", "a"},
      {"--agents-from", "-", "-n", "b", "a"},
      {"--agents-from", "-", "--servers-from", "-"},
      {"--agents-from", "-"},
      {"--rate", "0", "a"},
      {"--html", "", "a"},
      {"--html", "/nonexistent/page", "127.0.0.1:1"},
  };
  for (const Words& words : rows) {
    const Finished result = check(words);
    EXPECT_EQ(result.status, 3) << words[1];
    EXPECT_GT(result.output.size(), 10U);
  }
}

}  // namespace
}  // namespace velprobe::check
