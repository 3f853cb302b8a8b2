#include "page_matrix.h"

#include <algorithm>
#include <utility>

namespace velprobe::check {
namespace {

// A matrix may have this many times as many cells as there are results.
constexpr std::size_t kMostCellsPerRow = 4;
constexpr std::size_t kMostColumns = 20;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// take_number cuts the leading digits off and gives them without leading zeros.
std::string_view take_number(std::string_view& text) {
  const auto end = std::find_if_not(text.begin(), text.end(), is_digit);
  const auto first =
      std::find_if(text.begin(), end, [](char c) { return c != '0'; });
  const std::string_view number(first, end);
  text = std::string_view(end, text.end());
  return number;
}

using ReasonKey = std::pair<Result, std::string_view>;

// number_reasons lists the reasons of a report and numbers them.
std::map<ReasonKey, std::size_t> number_reasons(const Report& report,
                                                std::vector<Reason>& reasons) {
  std::map<ReasonKey, std::size_t> counts;
  for (const Row& row : report.rows) ++counts[{row.result, row.text}];
  for (const auto& [key, count] : counts) {
    reasons.push_back({key.first, std::string(key.second), count});
  }
  std::stable_sort(reasons.begin(), reasons.end(),
                   [](const Reason& one, const Reason& other) {
                     const bool mine = one.result == Result::kAccepted;
                     const bool its = other.result == Result::kAccepted;
                     return mine != its ? its : one.count > other.count;
                   });
  for (std::size_t i = 0; i < reasons.size(); ++i) {
    counts[{reasons[i].result, reasons[i].text}] = i;
  }
  return counts;
}

// Headings lists the headings of one side in the order in which they come.
class Headings {
 public:
  // number_of gives the place of a heading, and whether it is a new one.
  std::pair<std::size_t, bool> number_of(const Heading& heading) {
    const auto [at, is_new] = numbers_.emplace(
        std::pair(heading.name, heading.domain), numbers_.size());
    return {at->second, is_new};
  }

 private:
  std::map<std::pair<std::string, std::string>, std::size_t> numbers_;
};

void add_row(Matrix& matrix, const Row& row, std::size_t reason, Headings& rows,
             Headings& columns) {
  Heading heading{agent_name(row), row.domain};
  Heading column{server_name(row), ""};
  if (matrix.has_server_rows) std::swap(heading, column);
  const auto [place, is_new_row] = rows.number_of(heading);
  if (is_new_row) matrix.rows.push_back({std::move(heading)});
  const auto [number, is_new_column] = columns.number_of(column);
  if (is_new_column) matrix.columns.push_back(std::move(column));
  MatrixRow& line = matrix.rows[place];
  line.cells[number].push_back({&row, reason});
  if (row.result != Result::kAccepted) ++line.num_failed;
}

void sort_rows(std::vector<MatrixRow>& rows) {
  std::stable_sort(rows.begin(), rows.end(),
                   [](const MatrixRow& one, const MatrixRow& other) {
                     if (one.num_failed != other.num_failed) {
                       return one.num_failed > other.num_failed;
                     }
                     return is_name_before(one.heading.name,
                                           other.heading.name);
                   });
}

}  // namespace

const char* symbol_of(Result result) {
  static constexpr const char* kSymbols[kNumResults] = {
      "\u2713", "\u2715", "\u2260", "\u2298", "?", "\u25D4", "!"};
  return kSymbols[static_cast<std::size_t>(result)];
}

bool is_name_before(std::string_view one, std::string_view other) {
  while (!one.empty() && !other.empty()) {
    if (is_digit(one.front()) && is_digit(other.front())) {
      const std::string_view mine = take_number(one);
      const std::string_view its = take_number(other);
      if (mine.size() != its.size()) return mine.size() < its.size();
      if (mine != its) return mine < its;
      continue;
    }
    if (one.front() != other.front()) return one.front() < other.front();
    one.remove_prefix(1);
    other.remove_prefix(1);
  }
  return one.size() < other.size();
}

Matrix matrix_of(const Report& report) {
  Matrix matrix;
  matrix.has_server_rows = report.num_servers > kMostColumns &&
                           report.num_servers > report.num_agents;
  const auto reasons = number_reasons(report, matrix.reasons);
  Headings rows, columns;
  for (const Row& row : report.rows) {
    add_row(matrix, row, reasons.at({row.result, row.text}), rows, columns);
  }
  sort_rows(matrix.rows);
  matrix.is_list = matrix.columns.size() > kMostColumns ||
                   matrix.rows.size() * matrix.columns.size() >
                       kMostCellsPerRow * report.rows.size();
  return matrix;
}

}  // namespace velprobe::check
