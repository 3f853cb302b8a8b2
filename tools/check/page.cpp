#include "page.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "joined.h"
#include "page_matrix.h"
#include "page_parts.h"
#include "page_text.h"

namespace velprobe::check {
namespace {

// Reasons beyond these stand in the cells alone.
constexpr std::size_t kMostReasons = 200;

std::string number(std::size_t count) {
  return std::to_string(count);
}

std::string time_html(std::chrono::system_clock::time_point time) {
  const std::string text = timestamp(time);
  return joined({"<time datetime=\"", text, "\">", text.substr(0, 10), " ",
                 text.substr(11, 8), " UTC</time>"});
}

std::string bdi(std::string_view text) {
  return joined({"<bdi>", html_text(text), "</bdi>"});
}

// --- Head and summary -----------------------------------------------------

std::string verdict(const Report& report) {
  return joined({number(num_with(report, Result::kAccepted)), " of ",
                 number(report.rows.size()), " accepted"});
}

constexpr char kHeadStart[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<meta name="referrer" content="no-referrer">
<meta name="generator" content="velcheck )" VELPROBE_VERSION R"(">
)";

// policy has to stand before style and script.
std::string policy() {
  constexpr std::string_view kStart =
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src "
      "'none'; style-src '";
  return joined({kStart, kStyleHash, "'; script-src '", kScriptHash,
                 "'; base-uri 'none'; form-action 'none'\">\n"});
}

std::string head(const Report& report) {
  return joined({kHeadStart, policy(), "<title>", kStatusNames[report.status],
                 ": ", verdict(report), " - velcheck</title>\n<style>", kStyle,
                 "</style>\n</head>\n"});
}

std::string summary(const Report& report) {
  std::string html = joined(
      {"<header>\n<h1><span class=\"status ", kStatusNames[report.status],
       "\">", kStatusNames[report.status], "</span> ", verdict(report),
       "</h1>\n<p>", count_of(report.num_agents, "agent"), " at ",
       count_of(report.num_servers, "server"), ", ", time_html(report.started),
       ", ", seconds_text(report.seconds), " seconds</p>\n"});
  if (!report.error.empty()) {
    html += joined({"<p class=\"error\">", bdi(report.error), "</p>\n"});
  }
  return html + "</header>\n<main>\n";
}

std::string badge(Result result) {
  const std::string_view name = result_name(result);
  return joined({"<b class=\"badge ", name, "\"><i aria-hidden=\"true\">",
                 symbol_of(result), "</i> ", name, "</b>"});
}

std::string reason_row(const Reason& reason, std::size_t index) {
  const std::string id = number(index);
  const std::string text =
      reason.text.empty() ? "accepted" : html_text(reason.text);
  return joined(
      {"<tr role=\"row\"><td role=\"cell\">", badge(reason.result),
       "</td><td role=\"cell\" class=\"count\">", number(reason.count),
       "</td><td role=\"cell\"><a href=\"#reason-", id, "\" data-reason=\"", id,
       "\"><bdi>", text, "</bdi></a></td><td role=\"cell\">",
       html_text(advice_for(reason.result, reason.text)), "</td></tr>\n"});
}

std::string reasons_html(const std::vector<Reason>& reasons) {
  if (reasons.empty()) return "";
  std::string html =
      "<section>\n<h2>Reasons</h2>\n<table id=\"reasons\" role=\"table\">\n"
      "<thead role=\"rowgroup\"><tr role=\"row\">"
      "<th role=\"columnheader\" scope=\"col\">Result</th>"
      "<th role=\"columnheader\" scope=\"col\" class=\"count\">Count</th>"
      "<th role=\"columnheader\" scope=\"col\">Reason</th>"
      "<th role=\"columnheader\" scope=\"col\">What to do</th>"
      "</tr></thead>\n<tbody role=\"rowgroup\">\n";
  const std::size_t shown = std::min(reasons.size(), kMostReasons);
  for (std::size_t i = 0; i < shown; ++i) html += reason_row(reasons[i], i);
  html += "</tbody>\n</table>\n";
  if (shown < reasons.size()) {
    html += joined({"<p>", count_of(reasons.size() - shown, "further reason"),
                    " below.</p>\n"});
  }
  return html + "</section>\n";
}

std::string remarks_html(const Report& report) {
  if (report.remarks.empty()) return "";
  std::string html = "<section>\n<h2>Remarks</h2>\n<ul>\n";
  for (const std::string& remark : report.remarks) {
    html += joined({"<li>", bdi(remark), "</li>\n"});
  }
  return html + "</ul>\n</section>\n";
}

// --- The matrix -----------------------------------------------------------

class MatrixPrinter {
 public:
  MatrixPrinter(const Report& report, const Matrix& matrix)
      : report_(report),
        matrix_(matrix),
        is_linked_(matrix.reasons.size(), false) {}

  std::string html() {
    std::string html = joined({kOpening, "<table id=\"pairs\" role=\"table\"",
                               matrix_.is_list ? " class=\"list\"" : "", ">\n",
                               columns(), "<tbody role=\"rowgroup\">\n"});
    for (const MatrixRow& row : matrix_.rows) html += row_html(row);
    return joined({html, "</tbody>\n</table>\n</div>\n</section>\n"});
  }

 private:
  static constexpr char kOpening[] =
      "<section>\n<h2 id=\"pairs-title\">Agents and servers</h2>\n"
      "<form id=\"tools\" autocomplete=\"off\" hidden>\n"
      "<label>Find <input type=\"search\" id=\"find\" spellcheck=\"false\">"
      "</label>\n"
      "<label>Show <select id=\"show\"><option value=\"\">everything</option>"
      "<option value=\"!accepted\">not accepted</option></select></label>\n"
      "<label>Order <select id=\"order\">"
      "<option value=\"trouble\">trouble first</option>"
      "<option value=\"name\">by name</option></select></label>\n"
      "<output id=\"shown\"></output>\n</form>\n"
      "<div class=\"wide\" role=\"region\" aria-labelledby=\"pairs-title\" "
      "tabindex=\"0\">\n";

  std::string columns() const {
    const bool by_server = matrix_.has_server_rows;
    std::string html = joined({"<thead role=\"rowgroup\"><tr role=\"row\">",
                               column(by_server ? "Server" : "Agent")});
    if (matrix_.is_list) html += column(by_server ? "Agents" : "Servers");
    for (const Heading& heading : matrix_.columns) {
      if (!matrix_.is_list) html += column(heading_html(heading));
    }
    return html + "</tr></thead>\n";
  }

  static std::string column(std::string_view html) {
    return joined({"<th role=\"columnheader\" scope=\"col\">", html, "</th>"});
  }

  static std::string heading_html(const Heading& heading) {
    if (heading.domain.empty()) return bdi(heading.name);
    return joined(
        {bdi(heading.name), " <small>", bdi(heading.domain), "</small>"});
  }

  std::string row_html(const MatrixRow& row) {
    std::string html =
        joined({"<tr role=\"row\"><th role=\"rowheader\" scope=\"row\">",
                heading_html(row.heading), "</th>"});
    if (matrix_.is_list) {
      html += "<td role=\"cell\">";
      for (const auto& [column, cell] : row.cells) {
        html += cell_html(column, cell);
      }
      html += "</td>";
    }
    for (std::size_t i = 0; i < matrix_.columns.size() && !matrix_.is_list;
         ++i) {
      html += matrix_cell_html(row, i);
    }
    return html + "</tr>\n";
  }

  std::string matrix_cell_html(const MatrixRow& row, std::size_t column) {
    const auto cell = row.cells.find(column);
    if (cell != row.cells.end()) {
      return joined(
          {"<td role=\"cell\">", cell_html(column, cell->second), "</td>"});
    }
    return joined({"<td role=\"cell\" class=\"none\">", at_html(column),
                   "not asked</td>"});
  }

  // Shown where no column's heading tells it.
  std::string at_html(std::size_t column) const {
    return joined(
        {"<p class=\"at\">", heading_html(matrix_.columns[column]), "</p>"});
  }

  std::string cell_html(std::size_t column, const Cell& cell) {
    std::string html = at_html(column);
    for (const CellResult& result : cell) {
      html += result_html(result, cell.size() > 1);
    }
    return html;
  }

  // The first cell of each reason is where the list of reasons leads to.
  std::string result_html(const CellResult& result, bool has_rivals) {
    const Row& row = *result.row;
    const std::string reason = number(result.reason);
    std::string html =
        joined({"<div class=\"result\" data-reason=\"", reason,
                "\" data-result=\"", result_name(row.result), "\""});
    if (!is_linked_[result.reason]) {
      html += joined({" id=\"reason-", reason, "\""});
    }
    is_linked_[result.reason] = true;
    html += joined({">", badge(row.result)});
    if (!row.text.empty()) {
      html += joined({"<p>", bdi(row.text), "</p><p class=\"advice\">",
                      html_text(advice_for(row.result, row.text)), "</p>"});
    }
    return joined({html, details(row, has_rivals), "</div>"});
  }

  // What is the same for all cells is not said in each.
  std::string details(const Row& row, bool has_rivals) const {
    std::string html;
    if (has_rivals || report_.is_merged) html += time_html(row.time);
    if (row.is_outdated) html += " (outdated)";
    if (report_.is_merged && !row.host.empty() && row.is_named) {
      html += joined({" from ", bdi(row.host)});
    }
    if (report_.all_addresses && !row.address.empty()) {
      html += joined({" at ", html_text(row.address)});
    }
    return html.empty() ? "" : joined({"<small>", html, "</small>"});
  }

  const Report& report_;
  const Matrix& matrix_;
  std::vector<bool> is_linked_;  // by reason
};

}  // namespace

std::string page_html(const Report& report) {
  const Matrix matrix = matrix_of(report);
  return joined(
      {head(report), "<body>\n", summary(report), reasons_html(matrix.reasons),
       remarks_html(report),
       report.rows.empty() ? "" : MatrixPrinter(report, matrix).html(),
       "</main>\n<script>", kScript, "</script>\n</body>\n</html>\n"});
}

}  // namespace velprobe::check
