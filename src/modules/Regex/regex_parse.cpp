#include "regex_parse.h"

#include <algorithm>
#include <optional>

namespace velprobe {
namespace {

// Level is an open parenthesis, or the whole pattern: the branches read so far
// and the parts of the last one. item is the last part, which a repetition
// that follows would take.
struct Level {
  std::uint32_t group = 0;
  std::size_t offset = 0;
  std::uint32_t first_branch = kNoNode, last_branch = kNoNode;
  std::uint32_t first_part = kNoNode, last_part = kNoNode;
  std::uint32_t item = kNoNode;
  bool repeatable = false;
};

struct Counts {
  std::uint32_t min = 0;
  std::uint32_t max = 0;
};

class Parser {
 public:
  Parser(std::string_view pattern, unsigned flags, const RegexLimits& limits,
         Tree& tree)
      : pattern_(pattern),
        flags_(flags),
        extended_((flags & kRegexExtended) != 0),
        limits_(limits),
        tree_(tree) {}

  int parse();
  std::size_t fault() const { return fault_; }

 private:
  bool fail(int code, std::size_t where) {
    error_ = code;
    fault_ = where;
    return false;
  }
  bool out_of_space() { return fail(kRegexNoSpace, offset_); }
  bool at(std::string_view text) const {
    return pattern_.substr(offset_).starts_with(text);
  }
  // Takes an operator: a byte in extended notation, escaped in basic.
  bool take(char extended, char basic);
  bool at_branch_end() const;
  bool at_branch_start() const {
    return level().item == kNoNode && level().first_part == kNoNode;
  }
  Level& level() { return levels_.back(); }
  const Level& level() const { return levels_[levels_.size() - 1]; }

  bool keeps_groups() const;
  bool parse_next();
  bool parse_one(char byte);
  bool parse_escape();
  bool parse_backref(std::uint32_t number);
  bool parse_set(const ByteSet& set, std::size_t end);
  bool parse_bracket_item();
  bool open_group();
  bool close_group();
  bool end_branch();
  std::uint32_t end_level();

  std::optional<Counts> take_repetition();
  bool take_interval(Counts& out_counts);
  bool take_number(std::uint32_t& out_number);
  bool repeat(const Counts& counts, std::size_t where);

  bool add_part(std::uint32_t node, bool repeatable, std::size_t end);
  bool flush_item();
  void append(std::uint32_t& first, std::uint32_t& last, std::uint32_t node);
  bool within_memory() const;

  std::string_view pattern_;
  unsigned flags_;
  bool extended_;
  const RegexLimits& limits_;
  Tree& tree_;
  Array<Level> levels_;
  std::size_t offset_ = 0;
  bool keeps_groups_ = true;
  int error_ = 0;
  std::size_t fault_ = 0;
};

bool Parser::within_memory() const {
  return tree_.nodes.bytes() + tree_.sets.bytes() + tree_.groups.bytes() <=
         2 * limits_.memory;
}

void Parser::append(std::uint32_t& first, std::uint32_t& last,
                    std::uint32_t node) {
  (last == kNoNode ? first : tree_.nodes[last].next) = node;
  last = node;
}

bool Parser::flush_item() {
  Level& top = level();
  if (top.item == kNoNode) return true;
  append(top.first_part, top.last_part, top.item);
  top.item = kNoNode;
  return true;
}

// add_part puts a new part behind those of the branch and goes on at end.
bool Parser::add_part(std::uint32_t node, bool repeatable, std::size_t end) {
  if (node == kNoNode || !within_memory()) return out_of_space();
  flush_item();
  level().item = node;
  level().repeatable = repeatable;
  offset_ = end;
  return true;
}

bool Parser::end_branch() {
  flush_item();
  Level& top = level();
  const std::uint32_t branch = make_list(tree_, NodeKind::kCat, top.first_part);
  if (branch == kNoNode) return out_of_space();
  append(top.first_branch, top.last_branch, branch);
  top.first_part = top.last_part = kNoNode;
  top.repeatable = false;
  return true;
}

std::uint32_t Parser::end_level() {
  if (!end_branch()) return kNoNode;
  return make_list(tree_, NodeKind::kAlt, level().first_branch);
}

bool Parser::open_group() {
  const std::size_t where = offset_ - (extended_ ? 1 : 2);
  if (levels_.size() > limits_.nesting) return fail(kRegexNoSpace, where);
  flush_item();
  level().repeatable = false;
  Level inner;
  inner.group = static_cast<std::uint32_t>(tree_.groups.size());
  inner.offset = where;
  if (!tree_.groups.push(kNoNode) || !levels_.push(inner)) {
    return out_of_space();
  }
  return true;
}

bool Parser::close_group() {
  std::uint32_t node = end_level();
  if (node == kNoNode) return out_of_space();
  const std::uint32_t group = level().group;
  levels_.pop();
  if (keeps_groups_) {
    node = make_group(tree_, node, group);
    tree_.groups[group] = node;
  }
  return add_part(node, true, offset_);
}

bool Parser::take(char extended, char basic) {
  const char escaped[] = {'\\', basic};
  if (extended_ ? !at({&extended, 1}) : !at({escaped, 2})) return false;
  offset_ += extended_ ? 1 : 2;
  return true;
}

bool Parser::at_branch_end() const {
  return offset_ == pattern_.size() || at("\\)") || at("\\|");
}

bool Parser::take_number(std::uint32_t& out_number) {
  const std::size_t begin = offset_;
  out_number = 0;
  while (offset_ < pattern_.size() &&
         is_ascii_digit(byte_at(pattern_.data(), offset_))) {
    const auto digit = static_cast<std::uint32_t>(pattern_[offset_++] - '0');
    if (out_number <= kMaxCount) out_number = out_number * 10 + digit;
  }
  return offset_ > begin && out_number <= kMaxCount;
}

// The counts behind "{", up to and with "}".
bool Parser::take_interval(Counts& out_counts) {
  const std::size_t where = offset_ - (extended_ ? 1 : 2);
  const std::string_view closing = extended_ ? "}" : "\\}";
  const std::size_t end = pattern_.find(closing, offset_);
  if (end == std::string_view::npos) return fail(kRegexBadBrace, where);
  bool good = take_number(out_counts.min);
  out_counts.max = out_counts.min;
  if (good && at(",")) {
    ++offset_;
    out_counts.max = kUnbounded;
    if (offset_ != end) good = take_number(out_counts.max);
  }
  if (!good || offset_ != end || out_counts.max < out_counts.min) {
    return fail(kRegexBadCounts, where);
  }
  offset_ += closing.size();
  return true;
}

// The counts of a repetition when one stands here; an error shows in error_.
std::optional<Counts> Parser::take_repetition() {
  if (at("*") && (extended_ || level().repeatable)) {
    ++offset_;
    return Counts{0, kUnbounded};
  }
  if (take('+', '+')) return Counts{1, kUnbounded};
  if (take('?', '?')) return Counts{0, 1};
  const bool counted =
      !extended_ || (offset_ + 1 < pattern_.size() &&
                     (pattern_[offset_ + 1] == ',' ||
                      is_ascii_digit(byte_at(pattern_.data(), offset_ + 1))));
  if (!counted || !take('{', '{')) return std::nullopt;
  Counts counts;
  // Without this a repetition of nothing would be told by its counts.
  if (level().repeatable && !take_interval(counts)) return std::nullopt;
  return counts;
}

bool Parser::repeat(const Counts& counts, std::size_t where) {
  Level& top = level();
  if (!top.repeatable) return fail(kRegexBadRepetition, where);
  top.item = make_repeat(tree_, top.item, counts.min, counts.max);
  if (top.item == kNoNode || !within_memory()) return out_of_space();
  const std::uint64_t bytes = std::uint64_t{tree_.nodes[top.item].size} * 8;
  return bytes <= limits_.memory || fail(kRegexNoSpace, where);
}

bool Parser::parse_set(const ByteSet& set, std::size_t end) {
  return add_part(make_set(tree_, set), true, end);
}

bool Parser::parse_one(char byte) {
  ByteSet set;
  set.add(static_cast<std::uint8_t>(byte));
  if (flags_ & kRegexIgnoreCase) close_over_case(set);
  return parse_set(set, offset_ + 1);
}

bool Parser::parse_backref(std::uint32_t number) {
  const bool closed = !extended_ && number < tree_.groups.size() &&
                      tree_.groups[number] != kNoNode;
  if (!closed) return fail(kRegexBadReference, offset_);
  return add_part(make_backref(tree_, number), true, offset_ + 2);
}

// A backslash and a byte that together are no operator.
bool Parser::parse_escape() {
  if (offset_ + 1 == pattern_.size()) return fail(kRegexBadEscape, offset_);
  const std::uint8_t byte = byte_at(pattern_.data(), offset_ + 1);
  if (byte >= '1' && byte <= '9') {
    return parse_backref(byte - std::uint8_t{'0'});
  }
  const bool other_meaning =
      is_ascii_letter(byte) || byte == '0' ||
      std::string_view("<>'`").find(static_cast<char>(byte)) !=
          std::string_view::npos;
  if (other_meaning) return fail(kRegexBadPattern, offset_);
  if (!extended_ && byte == ')') return fail(kRegexBadParenthesis, offset_);
  ++offset_;
  return parse_one(static_cast<char>(byte));
}

bool Parser::parse_bracket_item() {
  const bool begin = at("[[:<:]]");
  if (begin || at("[[:>:]]")) {
    const std::uint32_t assertion = begin ? kWordBegin : kWordEnd;
    return add_part(make_node(tree_, NodeKind::kAssert, assertion), false,
                    offset_ + 7);
  }
  ByteSet set;
  std::size_t end = offset_;
  const int error = parse_bracket(pattern_, flags_, set, &end);
  return error != 0 ? fail(error, end) : parse_set(set, end);
}

bool Parser::parse_next() {
  const std::size_t where = offset_;
  if (const std::optional<Counts> counts = take_repetition()) {
    return repeat(*counts, where);
  }
  if (error_ != 0) return false;
  if (take('(', '(')) return open_group();
  if (levels_.size() > 1 && take(')', ')')) return close_group();
  if (take('|', '|')) return end_branch();
  const char byte = pattern_[offset_];
  if (byte == '^' && (extended_ || at_branch_start())) {
    return add_part(make_node(tree_, NodeKind::kAssert, kLineBegin), false,
                    offset_ + 1);
  }
  if (byte == '[') return parse_bracket_item();
  if (byte == '\\') return parse_escape();
  if (byte == '.') {
    ByteSet any;
    any.invert();
    if (flags_ & kRegexNewline) any.remove('\n');
    return parse_set(any, offset_ + 1);
  }
  if (byte != '$') return parse_one(byte);
  ++offset_;
  const bool is_anchor = extended_ || at_branch_end();
  if (!is_anchor) {
    --offset_;
    return parse_one(byte);
  }
  return add_part(make_node(tree_, NodeKind::kAssert, kLineEnd), false,
                  offset_);
}

bool Parser::keeps_groups() const {
  if (!(flags_ & kRegexNoSpans)) return true;
  if (extended_) return false;
  for (std::size_t i = 0; i + 1 < pattern_.size(); ++i) {
    if (pattern_[i] != '\\') continue;
    if (is_ascii_digit(byte_at(pattern_.data(), ++i))) return true;
  }
  return false;
}

int Parser::parse() {
  keeps_groups_ = keeps_groups();
  // Most bytes become a node; the array grows when needed.
  const std::size_t expected = std::min<std::size_t>(pattern_.size() + 8, 512);
  if (!tree_.nodes.reserve(expected) || !levels_.push({}) ||
      !tree_.groups.push(kNoNode)) {
    return kRegexNoSpace;
  }
  while (offset_ < pattern_.size()) {
    if (!parse_next()) return error_;
  }
  if (levels_.size() > 1) {
    fail(kRegexBadParenthesis, level().offset);
    return error_;
  }
  tree_.root = end_level();
  if (tree_.root == kNoNode) out_of_space();
  return error_;
}

}  // namespace

int regex_parse(std::string_view pattern, unsigned flags,
                const RegexLimits& limits, Tree& tree,
                std::size_t* out_offset) {
  Parser parser(pattern, flags, limits, tree);
  const int error = parser.parse();
  *out_offset = error != 0 ? parser.fault() : 0;
  return error;
}

}  // namespace velprobe
