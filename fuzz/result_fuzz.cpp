// A result of velcheck --json that anybody may have written: what is read comes
// back the same, and the page of it has no marks but its own.
#include "../tools/check/json.h"
#include "../tools/check/page.h"
#include "../tools/check/result_file.h"
#include "fuzz.h"

namespace velprobe {
namespace {

using namespace check;

Report report_of(std::vector<Row> rows) {
  Report report;
  report.rows = std::move(rows);
  judge(report);
  return report;
}

std::size_t count(std::string_view text, std::string_view part) {
  std::size_t number = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; ++at) {
    ++number;
  }
  return number;
}

}  // namespace

void fuzz_one(Input input) {
  ResultFile file;
  if (!parse_result(input.bytes, file).empty()) return;
  const Report report = report_of(file.rows);
  const std::string json = json_text(report);
  ResultFile again;
  REQUIRE(parse_result(json, again).empty());
  REQUIRE(json_text(report_of(again.rows)) == json);
  const std::string page = page_html(report);
  REQUIRE(count(page, "<script") == 1 && count(page, "<img") == 0);
  REQUIRE(count(page, "<style") == 1);
}

void make_seeds() {
  Row row;
  row.agent = std::string("<img src=x>");
  row.server = std::string("a");
  row.address = std::string("10.0.0.1");
  row.result = Result::kRefused;
  row.text = std::string("\xe2\x80\xae<script>");
  Row other = row;
  other.is_named = false;
  other.offered_version = 514;
  add_seed(json_text(report_of({row, other})));
  add_seed(json_text(report_of({})));
}

}  // namespace velprobe
