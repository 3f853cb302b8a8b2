#include "regex_program.h"

#include <algorithm>

namespace velprobe {
namespace {

// Task is a node whose instructions are to be written from pc on. Where they
// stand follows from the sizes, so the order of tasks does not matter.
struct Task {
  std::uint32_t node;
  std::uint32_t pc;
  bool first_copy;
  bool plain;  // stands for a back-reference: bytes only
};

class Emitter {
 public:
  explicit Emitter(RegexProgram& program)
      : program_(program), tree_(program.tree) {}
  [[nodiscard]] bool run();

 private:
  bool push(std::uint32_t node, std::uint32_t pc, const Task& parent,
            bool first = true) {
    return tasks_.push({node, pc, parent.first_copy && first, parent.plain});
  }
  void put(std::uint32_t pc, Op op, std::uint32_t arg, bool plain = false) {
    program_.code[pc] = plain ? make_inst(Op::kNop) : make_inst(op, arg);
  }
  void mark(std::uint32_t pc) {
    program_.marks[pc / 64] |= std::uint64_t{1} << (pc % 64);
  }
  bool emit(const Task& task);
  bool emit_list(const Task& task, const Node& node);
  bool emit_repeat(const Task& task, const Node& node);
  bool emit_copy(const Task& task, const Node& node, std::uint32_t i,
                 std::uint32_t pc);
  bool emit_backref(const Task& task, const Node& node);

  RegexProgram& program_;
  Tree& tree_;
  Array<Task> tasks_;
};

bool Emitter::emit_list(const Task& task, const Node& node) {
  const bool is_alt = node.kind == NodeKind::kAlt;
  const bool marked = task.first_copy && node.holds_group();
  const std::uint32_t end = task.pc + node.size;
  std::uint32_t pc = task.pc;
  for (std::uint32_t i = node.child; i != kNoNode;) {
    const Node& child = tree_.nodes[i];
    const bool splits = is_alt && child.next != kNoNode;
    const std::uint32_t behind = pc + child.size + (splits ? 2 : 0);
    if (splits) {
      put(behind - 1, Op::kJump, end);
      put(pc++, Op::kSplit, behind);
    }
    if (marked) mark(pc);
    if (!push(i, pc, task)) return false;
    pc = behind;
    i = child.next;
  }
  return true;
}

bool Emitter::emit_copy(const Task& task, const Node& node, std::uint32_t i,
                        std::uint32_t pc) {
  if (!node.holds_group()) return push(node.child, pc, task, i == 0);
  // Of the copies within the minimum only an unbounded last one runs again.
  const bool unbounded = node.max == kUnbounded;
  const bool watches =
      tree_.nodes[node.child].nullable && (!unbounded || i + 1 >= node.value);
  if (tree_.nodes[node.child].nullable) {
    const bool checks = watches && (unbounded || i >= node.value);
    put(pc + iteration_size(tree_, node) - 1, Op::kIterated, task.node,
        task.plain || !checks);
  }
  put(pc++, watches ? Op::kIterate : Op::kReset, task.node, task.plain);
  return push(node.child, pc, task, i == 0);
}

bool Emitter::emit_repeat(const Task& task, const Node& node) {
  if (node.max == 0) return true;
  const std::uint32_t end = task.pc + node.size;
  const std::uint32_t body = iteration_size(tree_, node);
  std::uint32_t pc = task.pc;
  const bool unbounded = node.max == kUnbounded;
  const std::uint32_t copies = unbounded ? std::max(node.value, 1U) : node.max;
  const bool marked = task.first_copy && node.holds_group();
  for (std::uint32_t i = 0; i < copies; ++i) {
    if (marked) mark(pc);
    if (i >= node.value) put(pc++, Op::kSplit, end);
    if (!emit_copy(task, node, i, pc)) return false;
    pc += body;
  }
  if (marked) mark(pc);
  if (unbounded && node.value == 0) put(pc, Op::kJump, task.pc);
  if (unbounded && node.value != 0) put(pc, Op::kSplit, pc - body);
  return true;
}

bool Emitter::emit_backref(const Task& task, const Node& node) {
  const auto index = static_cast<std::uint32_t>(program_.backrefs.size());
  put(task.pc, Op::kBackref, index, task.plain);
  if (!task.plain &&
      !program_.backrefs.push({node.value, task.pc + node.size})) {
    return false;
  }
  return tasks_.push({node.child, task.pc + 1, false, true});
}

bool Emitter::emit(const Task& task) {
  Node& node = tree_.nodes[task.node];
  if (task.first_copy) node.first = task.pc;
  switch (node.kind) {
    case NodeKind::kEmpty:
      return true;
    case NodeKind::kSet:
      put(task.pc, Op::kByte, node.value);
      return true;
    case NodeKind::kAssert:
      put(task.pc, Op::kAssert, node.value, task.plain);
      return true;
    case NodeKind::kGroup:
      put(task.pc, Op::kOpen, node.value, task.plain);
      put(task.pc + node.size - 1, Op::kClose, node.value, task.plain);
      return push(node.child, task.pc + 1, task);
    case NodeKind::kRepeat:
      return emit_repeat(task, node);
    case NodeKind::kBackref:
      return emit_backref(task, node);
    default:
      return emit_list(task, node);
  }
}

bool Emitter::run() {
  const std::uint32_t size = tree_.nodes[tree_.root].size;
  if (!program_.code.resize(size + 1) ||
      !program_.marks.resize(size / 64 + 1) ||
      !tasks_.push({tree_.root, 0, true, false})) {
    return false;
  }
  mark(0);
  while (!tasks_.empty()) {
    const Task task = tasks_.back();
    tasks_.pop();
    if (!emit(task)) return false;
  }
  put(size, Op::kMatch, 0);
  return true;
}

bool jumps(Inst inst) {
  return inst.op() == Op::kSplit || inst.op() == Op::kJump;
}

// A counting sort of the jumps by where they lead.
bool link_jumps(RegexProgram& program) {
  const std::size_t size = program.code.size();
  Array<std::uint32_t>& offsets = program.jump_offsets;
  if (!offsets.resize(size + 2)) return false;
  std::uint32_t total = 0;
  for (Inst inst : program.code) {
    if (!jumps(inst)) continue;
    ++offsets[inst.arg() + 2];
    ++total;
  }
  if (!program.jumps.resize(total)) return false;
  for (std::size_t i = 2; i < size + 2; ++i) offsets[i] += offsets[i - 1];
  for (std::uint32_t pc = 0; pc < size; ++pc) {
    const Inst inst = program.code[pc];
    if (jumps(inst)) program.jumps[offsets[inst.arg() + 1]++] = pc;
  }
  offsets.shrink(size + 1);
  return true;
}

// Splitter divides the bytes until no set holds a part of a class only. Each
// set costs time by its members.
class Splitter {
 public:
  explicit Splitter(Alphabet& alphabet) : alphabet_(alphabet) {
    std::memset(alphabet.class_of, 0, sizeof alphabet.class_of);
    alphabet.sample[0] = 0;
    sizes_[0] = 256;
  }

  void split_by(const ByteSet& set) {
    if (set.count() == 1) {
      set.for_each([&](std::uint8_t byte) { split_off(byte); });
      return;
    }
    std::uint16_t hits[256] = {};
    std::uint8_t touched[256];
    std::uint8_t firsts[256];
    unsigned num_touched = 0;
    set.for_each([&](std::uint8_t byte) {
      const std::uint8_t old = alphabet_.class_of[byte];
      if (hits[old]++ != 0) return;
      firsts[num_touched] = byte;
      touched[num_touched++] = old;
    });
    std::uint8_t moved_to[256];
    bool any = false;
    for (unsigned i = 0; i < num_touched; ++i) {
      const std::uint8_t old = touched[i];
      moved_to[old] = old;
      if (hits[old] == sizes_[old]) continue;
      moved_to[old] = static_cast<std::uint8_t>(count_);
      alphabet_.sample[count_] = firsts[i];
      sizes_[count_++] = hits[old];
      sizes_[old] = static_cast<std::uint16_t>(sizes_[old] - hits[old]);
      any = true;
    }
    if (!any) return;
    set.for_each([&](std::uint8_t byte) {
      alphabet_.class_of[byte] = moved_to[alphabet_.class_of[byte]];
    });
  }
  std::uint32_t count() const { return count_; }

  // Samples that have moved to another class are replaced.
  void mend_samples() {
    for (std::uint32_t i = 0; i < count_; ++i) {
      if (alphabet_.class_of[alphabet_.sample[i]] == i) continue;
      const auto* found = static_cast<const std::uint8_t*>(
          std::memchr(alphabet_.class_of, static_cast<int>(i), 256));
      alphabet_.sample[i] =
          static_cast<std::uint8_t>(found - alphabet_.class_of);
    }
  }

 private:
  void split_off(std::uint8_t byte) {
    const std::uint8_t old = alphabet_.class_of[byte];
    if (sizes_[old] == 1) return;
    --sizes_[old];
    sizes_[count_] = 1;
    alphabet_.sample[count_] = byte;
    alphabet_.class_of[byte] = static_cast<std::uint8_t>(count_++);
  }

  Alphabet& alphabet_;
  std::uint16_t sizes_[256] = {};
  std::uint32_t count_ = 1;
};

struct Needs {
  bool words = false;
  bool newlines = false;
};

Needs needed_kinds(const RegexProgram& program) {
  Needs needs;
  if (!program.tree.has_assertions) return needs;
  for (const Node& node : program.tree.nodes) {
    if (node.kind != NodeKind::kAssert) continue;
    (node.value >= kWordBegin ? needs.words : needs.newlines) = true;
  }
  needs.newlines &= (program.flags & kRegexNewline) != 0;
  return needs;
}

void set_kinds(Alphabet& alphabet, bool has_assertions, Needs needs) {
  alphabet.edges_only = !needs.words && !needs.newlines;
  const std::uint32_t n = alphabet.num_classes;
  for (std::uint32_t kind = 0; kind < kNumKinds; ++kind) {
    std::uint32_t index = kind;
    if (alphabet.edges_only) index = kind == kEdge ? 1 : 0;
    if (!has_assertions) index = 0;
    alphabet.offset_of_kind[kind] = static_cast<std::uint16_t>(index * n);
  }
  alphabet.num_symbols = alphabet.offset_of_kind[kEdge] + n;
  std::memset(alphabet.kind_of, kOther, sizeof alphabet.kind_of);
  std::memset(alphabet.offset_of_byte, 0, sizeof alphabet.offset_of_byte);
  if (alphabet.edges_only) return;
  for (unsigned byte = 0; byte < 256; ++byte) {
    Kind& kind = alphabet.kind_of[byte];
    const bool is_word = is_word_byte(static_cast<std::uint8_t>(byte));
    if (needs.words && is_word) kind = kWord;
    if (needs.newlines && byte == '\n') kind = kNewline;
    alphabet.offset_of_byte[byte] = alphabet.offset_of_kind[kind];
  }
}

bool build_alphabet(RegexProgram& program) {
  Alphabet& alphabet = program.alphabet;
  Splitter splitter(alphabet);
  for (const ByteSet& set : program.tree.sets) splitter.split_by(set);
  const Needs needs = needed_kinds(program);
  ByteSet special;
  if (needs.newlines) special.add('\n');
  if (needs.newlines) splitter.split_by(special);
  if (needs.words) {
    special = {};
    for (unsigned byte = 0; byte < 128; ++byte) {
      if (is_word_byte(static_cast<std::uint8_t>(byte))) {
        special.add(static_cast<std::uint8_t>(byte));
      }
    }
    splitter.split_by(special);
  }
  alphabet.num_classes = splitter.count();
  splitter.mend_samples();
  set_kinds(alphabet, program.tree.has_assertions, needs);
  if (!program.class_sets.resize(program.tree.sets.size())) return false;
  for (std::size_t i = 0; i < program.tree.sets.size(); ++i) {
    for (std::uint32_t c = 0; c < alphabet.num_classes; ++c) {
      const bool has = program.tree.sets[i].has(alphabet.sample[c]);
      if (has) program.class_sets[i].add(static_cast<std::uint8_t>(c));
    }
  }
  return true;
}

// Whether every match begins with "^": by one walk, children first.
bool begins_anchored(const Tree& tree) {
  std::uint32_t i = tree.root;
  for (;;) {
    const Node& node = tree.nodes[i];
    switch (node.kind) {
      case NodeKind::kAssert:
        return node.value == kLineBegin;
      case NodeKind::kRepeat:
        if (node.value == 0) return false;
        break;
      case NodeKind::kCat:
      case NodeKind::kGroup:
        break;
      default:  // of alternatives none is looked into
        return false;
    }
    i = node.child;
  }
}

}  // namespace

std::size_t RegexProgram::bytes() const {
  return sizeof *this + tree.nodes.bytes() + tree.sets.bytes() +
         tree.groups.bytes() + code.bytes() + jump_offsets.bytes() +
         jumps.bytes() + marks.bytes() + class_sets.bytes() + backrefs.bytes();
}

std::uint32_t iteration_size(const Tree& tree, const Node& repeat) {
  const Node& child = tree.nodes[repeat.child];
  if (!child.holds_group()) return child.size;
  return child.size + (child.nullable ? 2 : 1);
}

std::uint32_t copy_begin(const Tree& tree, const Node& repeat,
                         std::uint32_t i) {
  const std::uint32_t mark = repeat.holds_group() ? 1 : 0;
  const std::uint32_t body = iteration_size(tree, repeat);
  if (repeat.max == kUnbounded && i >= repeat.value) {
    i = repeat.value == 0 ? 0 : repeat.value - 1;
  }
  const std::uint32_t splits = i < repeat.value ? 0 : i - repeat.value + 1;
  return repeat.first + i * body + splits + mark;
}

std::uint32_t iterations_end(const Tree& tree, const Node& repeat,
                             std::uint32_t i) {
  const std::uint32_t body = iteration_size(tree, repeat);
  if (repeat.max == kUnbounded) i = std::min(i, repeat.value);
  const std::uint32_t splits = i < repeat.value ? 0 : i - repeat.value;
  return repeat.first + i * body + splits;
}

int program_build(RegexProgram& program) {
  // Instructions, their links and marks, and the stamps of a walk over them.
  constexpr std::uint64_t kBytesEach = 13;
  const std::uint32_t size = program.tree.nodes[program.tree.root].size;
  if (size >= kTooLarge || size * kBytesEach > program.limits.memory) {
    return kRegexNoSpace;
  }
  Emitter emitter(program);
  if (!emitter.run() || !link_jumps(program) || !build_alphabet(program)) {
    return kRegexNoSpace;
  }
  program.anchored =
      !(program.flags & kRegexNewline) && begins_anchored(program.tree);
  return program.bytes() <= program.limits.memory ? 0 : kRegexNoSpace;
}

}  // namespace velprobe
