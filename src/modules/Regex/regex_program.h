// The compiled expression: instructions that the automata are built from, both
// ways, and the classes of bytes that they do not tell apart.
#ifndef VELPROBE_MODULES_REGEX_REGEX_PROGRAM_H_
#define VELPROBE_MODULES_REGEX_REGEX_PROGRAM_H_

#include <atomic>

#include "regex.h"
#include "regex_tree.h"

namespace velprobe {

// Each instruction but kJump goes on with the one behind it.
enum class Op : std::uint32_t {
  kMatch,
  kByte,      // takes one byte of set arg
  kSplit,     // goes on at arg as well
  kJump,      // goes on at arg
  kAssert,    // passes where Assertion arg holds
  kOpen,      // group arg begins
  kClose,     // group arg ends
  kReset,     // the groups within node arg have taken no part so far
  kIterate,   // kReset; an iteration that may not be null begins
  kIterated,  // that iteration of node arg ends
  kBackref,   // backrefs[arg] is taken, or what follows stands for it
  kNop,
};

struct Inst {
  std::uint32_t word = 0;

  Op op() const { return static_cast<Op>(word >> 28); }
  std::uint32_t arg() const { return word & ((1U << 28) - 1); }
};

constexpr Inst make_inst(Op op, std::uint32_t arg = 0) {
  return {static_cast<std::uint32_t>(op) << 28 | arg};
}

// What stands on one side of a place in the text, as far as assertions ask.
enum Kind : std::uint8_t { kOther, kWord, kNewline, kEdge };
inline constexpr std::uint32_t kNumKinds = 4;

// Place is what stands before and behind a place in the text.
struct Place {
  Kind before = kOther;
  Kind after = kOther;

  std::uint32_t index() const { return before * kNumKinds + after; }
};
inline constexpr std::uint32_t kNumPlaces = kNumKinds * kNumKinds;

// passes tells whether an assertion holds at a place.
constexpr bool passes(std::uint32_t assertion, Place place) {
  switch (assertion) {
    case kLineBegin:
      return place.before >= kNewline;
    case kLineEnd:
      return place.after >= kNewline;
    case kWordBegin:
      return place.before != kWord && place.after == kWord;
    default:
      return place.before == kWord && place.after != kWord;
  }
}

struct Backref {
  std::uint32_t group;
  std::uint32_t end;  // behind the copy of what the group can match
};

// Alphabet maps bytes to classes: the expression treats all bytes of a class
// alike. A symbol is a class and what stands behind it.
struct Alphabet {
  std::uint8_t class_of[256];
  std::uint8_t sample[256];           // one byte of each class
  Kind kind_of[256];                  // of each byte
  std::uint16_t offset_of_byte[256];  // offset_of_kind of the byte's kind
  std::uint16_t offset_of_kind[kNumKinds];
  std::uint32_t num_classes;
  std::uint32_t num_symbols;
  // The kind of no byte of the text, only of its edges, matters.
  bool edges_only;

  Kind kind_of_symbol(std::uint32_t symbol) const {
    if (num_symbols == num_classes) return kOther;
    if (edges_only) return symbol < num_classes ? kOther : kEdge;
    return static_cast<Kind>(symbol / num_classes);
  }
};

struct Scratch;

struct RegexProgram {
  Tree tree;
  Array<Inst> code;  // the last one is kMatch
  // Which instructions jump to instruction i: jumps[jump_offsets[i]] up to
  // jumps[jump_offsets[i + 1]].
  Array<std::uint32_t> jump_offsets;
  Array<std::uint32_t> jumps;
  // One bit an instruction: something that groups depend on begins here.
  Array<std::uint64_t> marks;
  Array<ByteSet> class_sets;  // tree.sets over classes instead of bytes
  Array<Backref> backrefs;
  Alphabet alphabet;
  RegexLimits limits;
  unsigned flags = 0;
  bool anchored = false;  // matches only at the begin of the text
  // Working memory of earlier matches, for the next ones.
  static constexpr std::size_t kNumSlots = 4;
  std::atomic<Scratch*> slots[kNumSlots] = {};

  std::uint32_t end() const {
    return static_cast<std::uint32_t>(code.size() - 1);
  }
  bool is_marked(std::uint32_t pc) const {
    return marks[pc / 64] >> (pc % 64) & 1;
  }
  bool takes(Inst inst, std::uint32_t byte_class) const {
    return class_sets[inst.arg()].has(static_cast<std::uint8_t>(byte_class));
  }
  std::size_t bytes() const;
};

// program_build makes the program of program.tree. Returns 0 or kRegexNoSpace.
int program_build(RegexProgram& program);

// The instructions of one iteration of a repetition: with groups within it
// begins with kReset or kIterate, and ends with kIterated if it could be null.
std::uint32_t iteration_size(const Tree& tree, const Node& repeat);

// Copies of the body of a repetition: where copy i (from 0) begins, and where
// the program stands when i iterations (from 1) are done.
std::uint32_t copy_begin(const Tree& tree, const Node& repeat, std::uint32_t i);
std::uint32_t iterations_end(const Tree& tree, const Node& repeat,
                             std::uint32_t i);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_PROGRAM_H_
