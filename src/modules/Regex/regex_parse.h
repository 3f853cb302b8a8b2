// From a pattern to its tree.
#ifndef VELPROBE_MODULES_REGEX_REGEX_PARSE_H_
#define VELPROBE_MODULES_REGEX_REGEX_PARSE_H_

#include <string_view>

#include "regex.h"
#include "regex_tree.h"

namespace velprobe {

// regex_parse reads pattern by the flags of regex_compile into an empty tree.
// Returns 0 or a RegexError, with *out_offset set to the place at fault.
int regex_parse(std::string_view pattern, unsigned flags,
                const RegexLimits& limits, Tree& tree, std::size_t* out_offset);

// parse_bracket reads the bracket expression that begins at *offset with "[",
// and moves *offset behind it. On failure *offset is the place at fault.
int parse_bracket(std::string_view pattern, unsigned flags, ByteSet& out_set,
                  std::size_t* offset);

// close_over_case adds to each letter in the set its other case.
void close_over_case(ByteSet& set);

// Builders of nodes; each returns the new node's index, kNoNode when out of
// memory. They fold what is equal, keep what groups report, and fill in every
// field but first.
std::uint32_t make_node(Tree& tree, NodeKind kind, std::uint32_t value);
std::uint32_t make_set(Tree& tree, const ByteSet& set);
// Cat and Alt take over the list of children that begins with child.
std::uint32_t make_list(Tree& tree, NodeKind kind, std::uint32_t child);
std::uint32_t make_repeat(Tree& tree, std::uint32_t child, std::uint32_t min,
                          std::uint32_t max);
std::uint32_t make_group(Tree& tree, std::uint32_t child, std::uint32_t number);
std::uint32_t make_backref(Tree& tree, std::uint32_t number);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_PARSE_H_
