// Bracket expressions (XBD 9.3.5), alike in both notations.
#include "regex_parse.h"

namespace velprobe {
namespace {

using Predicate = bool (*)(unsigned byte);

struct ClassEntry {
  std::string_view name;
  Predicate has;  // asked for the bytes of ASCII only
};

constexpr bool is_upper(unsigned b) {
  return b >= 'A' && b <= 'Z';
}
constexpr bool is_lower(unsigned b) {
  return b >= 'a' && b <= 'z';
}
constexpr bool is_digit(unsigned b) {
  return b >= '0' && b <= '9';
}
constexpr bool is_alpha(unsigned b) {
  return is_upper(b) || is_lower(b);
}
constexpr bool is_alnum(unsigned b) {
  return is_alpha(b) || is_digit(b);
}
constexpr bool is_graph(unsigned b) {
  return b > ' ' && b < 127;
}

constexpr ClassEntry kClasses[] = {
    {"alnum", is_alnum},
    {"alpha", is_alpha},
    {"blank", [](unsigned b) { return b == ' ' || b == '\t'; }},
    {"cntrl", [](unsigned b) { return b < ' ' || b == 127; }},
    {"digit", is_digit},
    {"graph", is_graph},
    {"lower", is_lower},
    {"print", [](unsigned b) { return b >= ' ' && b < 127; }},
    {"punct", [](unsigned b) { return is_graph(b) && !is_alnum(b); }},
    {"space", [](unsigned b) { return b == ' ' || (b >= '\t' && b <= '\r'); }},
    {"upper", is_upper},
    {"xdigit",
     [](unsigned b) {
       return is_digit(b) || ((b | 32) >= 'a' && (b | 32) <= 'f');
     }},
};

// Bracket reads one bracket expression; offset is the next byte to read.
struct Bracket {
  std::string_view pattern;
  std::size_t offset;
  ByteSet set;
  int error = 0;
  std::size_t fault = 0;

  bool fail(int code, std::size_t where) {
    error = code;
    fault = where;
    return false;
  }
  bool at(std::string_view text) const {
    return pattern.substr(offset).starts_with(text);
  }
  bool at_end() const { return offset >= pattern.size(); }

  bool read_name(std::string_view& out_name);
  bool read_class();
  bool read_symbol(std::uint8_t& out_byte);
  bool read_end(std::uint8_t& out_byte);
  bool read_range(std::uint8_t first, std::size_t where);
  bool read_element();
  bool read_list(std::size_t begin);
};

// The name in "[:name:]" and its kin, which has at least one byte: "[.].]".
bool Bracket::read_name(std::string_view& out_name) {
  const std::size_t where = offset;
  const char closing[] = {pattern[offset + 1], ']'};
  const std::size_t begin = offset + 2;
  std::size_t end = pattern.find(std::string_view(closing, 2), begin + 1);
  if (end == std::string_view::npos) {
    end = pattern.find(std::string_view(closing, 2), begin);
  }
  if (end == std::string_view::npos) return fail(kRegexBadBracket, where);
  out_name = pattern.substr(begin, end - begin);
  offset = end + 2;
  return true;
}

bool Bracket::read_class() {
  const std::size_t where = offset;
  std::string_view name;
  if (!read_name(name)) return false;
  for (const ClassEntry& entry : kClasses) {
    if (entry.name != name) continue;
    for (unsigned byte = 0; byte < 128; ++byte) {
      if (entry.has(byte)) set.add(static_cast<std::uint8_t>(byte));
    }
    return true;
  }
  return fail(kRegexBadClass, where);
}

// "[.x.]" or "[=x=]": in this locale each of one byte.
bool Bracket::read_symbol(std::uint8_t& out_byte) {
  const std::size_t where = offset;
  std::string_view name;
  if (!read_name(name)) return false;
  if (name.size() != 1) return fail(kRegexBadCollation, where);
  out_byte = static_cast<std::uint8_t>(name[0]);
  return true;
}

// The second end of a range.
bool Bracket::read_end(std::uint8_t& out_byte) {
  if (at_end()) return fail(kRegexBadBracket, fault);
  if (at("[:") || at("[=")) return fail(kRegexBadRange, offset);
  if (at("[.")) return read_symbol(out_byte);
  out_byte = static_cast<std::uint8_t>(pattern[offset++]);
  return true;
}

bool Bracket::read_range(std::uint8_t first, std::size_t where) {
  ++offset;  // the hyphen
  std::uint8_t last = 0;
  if (!read_end(last)) return false;
  if (last < first) return fail(kRegexBadRange, where);
  set.add_range(first, last);
  // "a-c-e": the hyphen behind a range stands last or is wrong.
  if (at("-") && !at("-]")) return fail(kRegexBadRange, where);
  return true;
}

bool Bracket::read_element() {
  const std::size_t where = offset;
  std::uint8_t byte = 0;
  const bool is_class = at("[:");
  const bool is_equivalence = at("[=");
  if (is_class) {
    if (!read_class()) return false;
  } else if (is_equivalence || at("[.")) {
    if (!read_symbol(byte)) return false;
  } else {
    byte = static_cast<std::uint8_t>(pattern[offset++]);
  }
  const bool is_range = at("-") && !at("-]");
  if (is_range && (is_class || is_equivalence)) {
    return fail(kRegexBadRange, where);
  }
  if (is_range) return read_range(byte, where);
  if (!is_class) set.add(byte);
  return true;
}

bool Bracket::read_list(std::size_t begin) {
  for (bool first = true; first || !at("]"); first = false) {
    fault = begin;
    if (at_end()) return fail(kRegexBadBracket, begin);
    if (!read_element()) return false;
  }
  ++offset;
  return true;
}

}  // namespace

void close_over_case(ByteSet& set) {
  for (std::uint8_t upper = 'A'; upper <= 'Z'; ++upper) {
    const auto lower = static_cast<std::uint8_t>(upper | 0x20);
    if (!set.has(upper) && !set.has(lower)) continue;
    set.add(upper);
    set.add(lower);
  }
}

int parse_bracket(std::string_view pattern, unsigned flags, ByteSet& out_set,
                  std::size_t* offset) {
  Bracket bracket{pattern, *offset + 1, {}};
  const bool negated = bracket.at("^");
  if (negated) ++bracket.offset;
  const bool good = bracket.read_list(*offset);
  *offset = good ? bracket.offset : bracket.fault;
  if (!good) return bracket.error;
  out_set = bracket.set;
  if (flags & kRegexIgnoreCase) close_over_case(out_set);
  if (negated) {
    out_set.invert();
    if (flags & kRegexNewline) out_set.remove('\n');
  }
  return 0;
}

}  // namespace velprobe
