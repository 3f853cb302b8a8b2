// The rows of a report as a matrix of agents and servers.
#ifndef VELPROBE_CHECK_PAGE_MATRIX_H_
#define VELPROBE_CHECK_PAGE_MATRIX_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "report.h"

namespace velprobe::check {

// Reason is what a number of results have in common.
struct Reason {
  Result result;
  std::string text;
  std::size_t count = 0;
};

struct CellResult {
  const Row* row;
  std::size_t reason;  // in Matrix::reasons
};

// Heading is an agent, or a server, which has no domain.
struct Heading {
  std::string name;
  std::string domain;
};

// A cell has several results when a server has several addresses or results of
// several runs disagree.
using Cell = std::vector<CellResult>;

struct MatrixRow {
  Heading heading;
  std::map<std::size_t, Cell> cells = {};  // by column; none: was not asked
  std::size_t num_failed = 0;
};

// Matrix lives as long as the report that it points into.
struct Matrix {
  std::vector<Reason> reasons;  // the most frequent first, acceptance last
  std::vector<Heading> columns;
  std::vector<MatrixRow> rows;  // those with most trouble first, then by name
  // The rows are agents and the columns servers, unless there are few agents
  // and many servers.
  bool has_server_rows = false;
  bool is_list = false;  // too wide for columns, or mostly empty
};

Matrix matrix_of(const Report& report);

// symbol_of gives a character in UTF-8 for a result, each of another shape.
const char* symbol_of(Result result);

// is_name_before orders names as people do: "web2" before "web10".
bool is_name_before(std::string_view one, std::string_view other);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PAGE_MATRIX_H_
