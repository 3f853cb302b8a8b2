// The builders of nodes: their sizes and lengths, and what folds into less.
#include <algorithm>

#include "regex_parse.h"
#include "regex_program.h"

namespace velprobe {
namespace {

std::uint32_t clamp_size(std::uint64_t size) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(size, kTooLarge));
}

std::uint32_t add_lengths(std::uint32_t a, std::uint32_t b) {
  if (a == kVaries || b == kVaries) return kVaries;
  return a + b < kTooLarge ? a + b : kVaries;
}

std::uint32_t push_node(Tree& tree, const Node& node) {
  if (!tree.nodes.push(node)) return kNoNode;
  return static_cast<std::uint32_t>(tree.nodes.size() - 1);
}

// Either of ?, * and + on top of another is a third.
bool is_simple_repeat(std::uint32_t min, std::uint32_t max) {
  return (min == 0 && max == 1) || (min <= 1 && max == kUnbounded);
}

void size_repeat(const Tree& tree, Node& node) {
  const Node& child = tree.nodes[node.child];
  const std::uint64_t body = iteration_size(tree, node);
  const std::uint64_t min = node.value;
  if (node.max == 0) {
    node.size = 0;
  } else if (node.max == kUnbounded) {
    node.size = clamp_size(min == 0 ? body + 2 : min * body + 1);
  } else {
    node.size = clamp_size(min * body + (node.max - min) * (body + 1));
  }
  if (node.value == node.max && child.length != kVaries) {
    const std::uint64_t length = std::uint64_t{child.length} * node.max;
    node.length =
        length < kTooLarge ? static_cast<std::uint32_t>(length) : kVaries;
  } else {
    node.length = node.only_null ? 0 : kVaries;
  }
}

// An alternative of single bytes is a set. The list of children goes.
std::uint32_t merge_sets(Tree& tree, std::uint32_t child) {
  ByteSet all;
  for (std::uint32_t i = child; i != kNoNode; i = tree.nodes[i].next) {
    if (tree.nodes[i].kind != NodeKind::kSet) return kNoNode;
    all.add_all(tree.sets[tree.nodes[i].value]);
  }
  return make_set(tree, all);
}

void add_child(Node& list, const Node& child, bool is_first) {
  const bool is_alt = list.kind == NodeKind::kAlt;
  if (child.holds_group()) {
    if (!list.holds_group()) list.first_group = child.first_group;
    list.end_group = child.end_group;
  }
  list.only_null &= child.only_null;
  list.has_backref |= child.has_backref;
  list.size = clamp_size(std::uint64_t{list.size} + child.size +
                         (is_alt && !is_first ? 2 : 0));
  if (!is_alt) {
    list.nullable &= child.nullable;
    list.length = add_lengths(list.length, child.length);
  } else if (is_first) {
    list.nullable = child.nullable;
    list.length = child.length;
  } else {
    list.nullable |= child.nullable;
    if (list.length != child.length) list.length = kVaries;
  }
}

}  // namespace

std::uint32_t make_node(Tree& tree, NodeKind kind, std::uint32_t value) {
  Node node;
  node.kind = kind;
  node.value = value;
  node.size = kind == NodeKind::kEmpty ? 0 : 1;
  tree.has_assertions |= kind == NodeKind::kAssert;
  return push_node(tree, node);
}

std::uint32_t make_set(Tree& tree, const ByteSet& set) {
  // Most patterns have few sets, and the same ones close together.
  constexpr std::size_t kLookBack = 64;
  const std::size_t count = tree.sets.size();
  std::size_t i = count;
  const std::size_t stop = count > kLookBack ? count - kLookBack : 0;
  while (i > stop && !(tree.sets[i - 1] == set)) --i;
  if (i == stop) {
    if (!tree.sets.push(set)) return kNoNode;
    i = count + 1;
  }
  Node node;
  node.kind = NodeKind::kSet;
  node.value = static_cast<std::uint32_t>(i - 1);
  node.nullable = node.only_null = false;
  node.length = node.size = 1;
  return push_node(tree, node);
}

std::uint32_t make_list(Tree& tree, NodeKind kind, std::uint32_t child) {
  if (child == kNoNode) return make_node(tree, NodeKind::kEmpty, 0);
  if (tree.nodes[child].next == kNoNode) return child;
  if (kind == NodeKind::kAlt) {
    const std::uint32_t merged = merge_sets(tree, child);
    if (merged != kNoNode) return merged;
  }
  Node node;
  node.kind = kind;
  node.child = child;
  for (std::uint32_t i = child; i != kNoNode; i = tree.nodes[i].next) {
    add_child(node, tree.nodes[i], i == child);
  }
  return push_node(tree, node);
}

std::uint32_t make_repeat(Tree& tree, std::uint32_t child, std::uint32_t min,
                          std::uint32_t max) {
  const Node inner = tree.nodes[child];
  if (inner.only_null && max != 0) {  // all iterations stand at one place
    min = std::min(min, 1U);
    max = 1;
  }
  if (min == 1 && max == 1) return child;
  if (inner.kind == NodeKind::kRepeat && is_simple_repeat(min, max) &&
      is_simple_repeat(inner.value, inner.max)) {
    const std::uint32_t both_max = std::max(inner.max, max);
    const std::uint32_t both_min = std::min(inner.value, min);
    return make_repeat(tree, inner.child, both_min, both_max);
  }
  Node node;
  node.kind = NodeKind::kRepeat;
  node.child = child;
  node.value = min;
  node.max = max;
  if (max != 0) {
    node.first_group = inner.first_group;
    node.end_group = inner.end_group;
  }
  node.nullable = min == 0 || inner.nullable;
  node.only_null = max == 0 || inner.only_null;
  node.has_backref = inner.has_backref;
  size_repeat(tree, node);
  return push_node(tree, node);
}

std::uint32_t make_group(Tree& tree, std::uint32_t child,
                         std::uint32_t number) {
  Node node = tree.nodes[child];
  node.kind = NodeKind::kGroup;
  node.first_group = number;
  if (node.end_group <= number) node.end_group = number + 1;
  node.value = number;
  node.child = child;
  node.next = kNoNode;
  node.size = clamp_size(node.size + 2ULL);
  return push_node(tree, node);
}

// For the automata a back-reference is another copy of what its group can
// match, so it is one instruction larger than that.
std::uint32_t make_backref(Tree& tree, std::uint32_t number) {
  const Node& group = tree.nodes[tree.groups[number]];
  tree.referred |= 1U << number;
  Node node;
  node.has_backref = true;
  node.kind = NodeKind::kBackref;
  node.value = number;
  node.child = tree.groups[number];
  node.nullable = true;
  node.only_null = group.only_null;
  node.length = kVaries;
  node.size = clamp_size(group.size + 1ULL);
  return push_node(tree, node);
}

}  // namespace velprobe
