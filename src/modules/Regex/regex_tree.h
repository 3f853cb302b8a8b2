// The tree of an expression: what the parser makes and all else is built from.
#ifndef VELPROBE_MODULES_REGEX_REGEX_TREE_H_
#define VELPROBE_MODULES_REGEX_REGEX_TREE_H_

#include <cstdint>

#include "regex_bytes.h"

namespace velprobe {

enum class NodeKind : std::uint8_t {
  kEmpty,
  kSet,      // one byte of sets[value]
  kAssert,   // value: Assertion
  kBackref,  // value: group number
  kCat,      // children one after the other
  kAlt,      // one of the children
  kRepeat,   // the child value to max times
  kGroup,    // the child as group number value
};

// The places an assertion can ask for.
enum Assertion : std::uint32_t { kLineBegin, kLineEnd, kWordBegin, kWordEnd };

inline constexpr std::uint32_t kNoNode = UINT32_MAX;
inline constexpr std::uint32_t kUnbounded = UINT32_MAX;
inline constexpr std::uint32_t kMaxCount = 32767;
// The length of what has no fixed one.
inline constexpr std::uint32_t kVaries = UINT32_MAX;
// Programs and lengths stay below; what would be larger counts as this.
inline constexpr std::uint32_t kTooLarge = (1U << 28) - 1;

// Node is a part of the expression. Children have lower indexes than parents,
// so that one walk over all nodes sees each behind what it consists of.
struct Node {
  NodeKind kind = NodeKind::kEmpty;
  bool nullable = true;      // can match the null string
  bool only_null = true;     // can match nothing else
  bool has_backref = false;  // is or holds one
  std::uint32_t value = 0;
  std::uint32_t max = 0;
  std::uint32_t child = kNoNode;
  std::uint32_t next = kNoNode;  // the parent's next child
  std::uint32_t length = 0;      // of every match, in bytes, or kVaries
  std::uint32_t size = 0;        // instructions, all counts expanded
  // Where the node's first copy stands in the program.
  std::uint32_t first = 0;
  // The numbers of the groups within, the node itself included.
  std::uint32_t first_group = 0;
  std::uint32_t end_group = 0;

  bool holds_group() const { return first_group < end_group; }
};

struct Tree {
  Array<Node> nodes;
  Array<ByteSet> sets;
  // The node of each group by its number; kNoNode where none was kept.
  Array<std::uint32_t> groups;
  std::uint32_t root = 0;
  std::uint32_t referred = 0;  // one bit for each group referred to
  bool has_assertions = false;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_TREE_H_
