#include "result_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>
#include <variant>

#include "joined.h"
#include "json.h"
#include "look_up.h"
#include "net/address.h"

namespace velprobe::check {
namespace {

using Json = nlohmann::json;
using Time = std::chrono::system_clock::time_point;

// Nothing that velcheck writes is nested deeper than its rows; later versions
// may add to that, but not this much.
constexpr std::size_t kDeepest = 32;
constexpr double kMostSeconds = 1e9;
constexpr int kFirstYear = 1970;
constexpr int kLastYear = 2200;

// Value is what a field can hold; std::monostate is null.
using Value = std::variant<std::monostate, bool, double, std::string>;

// --- Fields ---------------------------------------------------------------

// A setter is false for a value that the field cannot have.
bool set_text(const Value& value, std::string& text) {
  const auto* given = std::get_if<std::string>(&value);
  if (given != nullptr) text = *given;
  return given != nullptr;
}

bool set_text_or_null(const Value& value, std::string& text) {
  return std::holds_alternative<std::monostate>(value) ||
         (set_text(value, text) && !text.empty());
}

bool set_address(const Value& value, std::string& text) {
  Ipv4Address address{};
  return set_text_or_null(value, text) &&
         (text.empty() || is_dotted(text, address));
}

bool set_flag(const Value& value, bool& flag) {
  const bool* given = std::get_if<bool>(&value);
  if (given != nullptr) flag = *given;
  return given != nullptr;
}

bool set_seconds(const Value& value, double& seconds) {
  const double* given = std::get_if<double>(&value);
  if (given == nullptr || !(*given >= 0 && *given <= kMostSeconds)) {
    return false;
  }
  seconds = *given;
  return true;
}

bool set_word(const Value& value, std::uint16_t& word) {
  const double* given = std::get_if<double>(&value);
  if (given == nullptr || !(*given >= 0 && *given <= UINT16_MAX) ||
      std::trunc(*given) != *given) {
    return false;
  }
  word = static_cast<std::uint16_t>(*given);
  return true;
}

bool set_version(const Value& value, std::optional<std::uint32_t>& version) {
  if (std::holds_alternative<std::monostate>(value)) return true;
  std::uint16_t word = 0;
  if (!set_word(value, word)) return false;
  version = word;
  return true;
}

bool set_result(const Value& value, Result& out_result) {
  for (const Result result : kAllResults) {
    if (value != Value(std::string(result_name(result)))) continue;
    out_result = result;
    return true;
  }
  return false;
}

bool set_source(const Value& value, Source& out_source) {
  for (const Source source :
       {Source::kConfig, Source::kArgument, Source::kScan}) {
    if (value != Value(std::string(source_name(source)))) continue;
    out_source = source;
    return true;
  }
  return false;
}

int number_at(const std::string& text, std::size_t at, std::size_t size) {
  int number = -1;
  std::from_chars(text.data() + at, text.data() + at + size, number);
  return number;
}

// set_time takes exactly what timestamp prints, in years that a clock of
// nanoseconds can hold.
bool set_time(const Value& value, Time& time) {
  const auto* text = std::get_if<std::string>(&value);
  if (text == nullptr || text->size() != 24) return false;
  std::tm parts{};
  const int year = number_at(*text, 0, 4);
  if (year < kFirstYear || year > kLastYear) return false;
  parts.tm_year = year - 1900;
  parts.tm_mon = number_at(*text, 5, 2) - 1;
  parts.tm_mday = number_at(*text, 8, 2);
  parts.tm_hour = number_at(*text, 11, 2);
  parts.tm_min = number_at(*text, 14, 2);
  parts.tm_sec = number_at(*text, 17, 2);
  time = std::chrono::system_clock::from_time_t(::timegm(&parts)) +
         std::chrono::milliseconds(number_at(*text, 20, 3));
  return timestamp(time) == *text;
}

// Field is one that a reader knows.
template <typename Object>
struct Field {
  const char* name;
  bool is_required;
  bool (*set)(const Value& value, Object& object);
};

constexpr Field<Row> kRowFields[] = {
    {"agent", true,
     [](const Value& v, Row& r) { return set_text_or_null(v, r.agent); }},
    {"named", false,
     [](const Value& v, Row& r) { return set_flag(v, r.is_named); }},
    {"domain", true,
     [](const Value& v, Row& r) { return set_text(v, r.domain); }},
    {"host", false, [](const Value& v, Row& r) { return set_text(v, r.host); }},
    {"server", true,
     [](const Value& v, Row& r) {
       return set_text(v, r.server) && !r.server.empty();
     }},
    {"address", true,
     [](const Value& v, Row& r) { return set_address(v, r.address); }},
    {"port", true, [](const Value& v, Row& r) { return set_word(v, r.port); }},
    {"source", true,
     [](const Value& v, Row& r) { return set_source(v, r.source); }},
    {"result", true,
     [](const Value& v, Row& r) { return set_result(v, r.result); }},
    {"text", true, [](const Value& v, Row& r) { return set_text(v, r.text); }},
    {"offered_version", true,
     [](const Value& v, Row& r) { return set_version(v, r.offered_version); }},
    {"seconds", true,
     [](const Value& v, Row& r) { return set_seconds(v, r.seconds); }},
    {"time", true, [](const Value& v, Row& r) { return set_time(v, r.time); }},
};

constexpr Field<ResultFile> kHeadFields[] = {
    {"schema", true,
     [](const Value& v, ResultFile&) { return v == Value(double{kSchema}); }},
    {"error", true,
     [](const Value& v, ResultFile& f) {
       return set_text_or_null(v, f.error);
     }},
    {"started", true,
     [](const Value& v, ResultFile& f) { return set_time(v, f.started); }},
    {"seconds", true,
     [](const Value& v, ResultFile& f) { return set_seconds(v, f.seconds); }},
    {"all_addresses", false,
     [](const Value& v, ResultFile& f) {
       return set_flag(v, f.all_addresses);
     }},
};

// --- The reader -----------------------------------------------------------

// Reader gets the parts of the JSON text one by one. It follows the head
// (depth 1), the rows (2 and 3) and the remarks (2); the rest only counts for
// the depth. A call that gives false ends the reading.
class Reader : public nlohmann::json_sax<Json> {
 public:
  explicit Reader(ResultFile& result) : result_(result) {}

  const std::string& complaint() const { return complaint_; }

  bool null() override { return take({}); }
  bool boolean(bool value) override { return take(value); }
  bool number_integer(number_integer_t value) override {
    return take(static_cast<double>(value));
  }
  bool number_unsigned(number_unsigned_t value) override {
    return take(static_cast<double>(value));
  }
  bool number_float(number_float_t value, const string_t&) override {
    return take(value);
  }
  bool string(string_t& value) override { return take(std::move(value)); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return go_down(false); }
  bool start_array(std::size_t) override { return go_down(true); }
  bool end_array() override { return go_up(); }

  bool key(string_t& name) override {
    if (depth_ == 1) {
      head_key_ = std::move(name);
    } else if (depth_ == 3) {
      row_key_ = std::move(name);
    }
    return true;
  }

  bool end_object() override {
    if (depth_ == 3 && list_ == List::kRows && !end_row()) return false;
    if (depth_ == 1 && !end_head()) return false;
    return go_up();
  }

  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception&) override {
    return fail(joined(
        {"no whole JSON text, wrong at byte ", std::to_string(position)}));
  }

 private:
  enum class List { kNone, kRows, kRemarks };

  bool fail(std::string complaint) {
    complaint_ = std::move(complaint);
    return false;
  }

  std::string where() const {
    return list_ == List::kRows && depth_ == 3
               ? joined({"servers[", std::to_string(result_.rows.size() - 1),
                         "]: "})
               : "";
  }

  template <typename Object, std::size_t count>
  bool set_field(const Field<Object> (&fields)[count], const std::string& name,
                 const Value& value, Object& object, unsigned& seen) {
    for (std::size_t i = 0; i < count; ++i) {
      if (name != fields[i].name) continue;
      seen |= 1U << i;
      return fields[i].set(value, object) ||
             fail(joined({where(), "a wrong \"", fields[i].name, "\""}));
    }
    return true;
  }

  template <typename Object, std::size_t count>
  bool has_all(const Field<Object> (&fields)[count], unsigned seen) {
    for (std::size_t i = 0; i < count; ++i) {
      if (fields[i].is_required && (seen >> i & 1U) == 0) {
        return fail(joined({where(), "no \"", fields[i].name, "\""}));
      }
    }
    return true;
  }

  bool take(const Value& value) {
    if (depth_ == 0) return fail("no JSON object");
    if (depth_ == 1) {
      return set_field(kHeadFields, head_key_, value, result_, head_seen_);
    }
    if (depth_ == 2 && list_ == List::kRemarks) {
      return set_text(value, result_.remarks.emplace_back()) ||
             fail("a wrong \"remarks\"");
    }
    if (depth_ == 2 && list_ == List::kRows) return fail("a wrong \"servers\"");
    if (depth_ == 3 && list_ == List::kRows) {
      return set_field(kRowFields, row_key_, value, result_.rows.back(),
                       row_seen_);
    }
    return true;
  }

  // A field of one value cannot be a list or an object.
  bool is_wrong_place(bool is_array) const {
    if (depth_ == 0) return is_array;
    if (list_ == List::kRows && depth_ == 2) return is_array;
    if (list_ == List::kRemarks) return true;
    const auto is_known = [](const auto& fields, const std::string& key) {
      return std::any_of(std::begin(fields), std::end(fields),
                         [&](const auto& field) { return key == field.name; });
    };
    if (depth_ == 1) {
      return is_known(kHeadFields, head_key_) ||
             (!is_array && (head_key_ == "servers" || head_key_ == "remarks"));
    }
    return list_ == List::kRows && depth_ == 3 &&
           is_known(kRowFields, row_key_);
  }

  bool go_down(bool is_array) {
    if (depth_ == kDeepest) return fail("nested too deeply");
    if (is_wrong_place(is_array)) {
      return fail(joined({where(), depth_ == 0 ? "no JSON object"
                                               : "a list or an object that "
                                                 "does not belong there"}));
    }
    if (depth_ == 1 && head_key_ == "servers") {
      list_ = List::kRows;
      has_rows_ = true;
    }
    if (depth_ == 1 && head_key_ == "remarks") list_ = List::kRemarks;
    ++depth_;
    if (depth_ == 3 && list_ == List::kRows) {
      result_.rows.emplace_back();
      row_seen_ = 0;
    }
    return true;
  }

  bool go_up() {
    if (--depth_ == 1) list_ = List::kNone;
    return true;
  }

  bool end_row() {
    Row& row = result_.rows.back();
    if (row.agent.empty()) row.is_named = false;
    return has_all(kRowFields, row_seen_);
  }

  bool end_head() {
    return has_all(kHeadFields, head_seen_) &&
           (has_rows_ || fail("no \"servers\""));
  }

  ResultFile& result_;
  std::string complaint_;
  std::size_t depth_ = 0;
  List list_ = List::kNone;
  bool has_rows_ = false;
  std::string head_key_;
  std::string row_key_;
  unsigned head_seen_ = 0;
  unsigned row_seen_ = 0;
};

}  // namespace

std::string parse_result(std::string_view json, ResultFile& out_result) {
  Reader reader(out_result);
  const bool whole = Json::sax_parse(json.begin(), json.end(), &reader);
  return whole ? "" : reader.complaint();
}

}  // namespace velprobe::check
