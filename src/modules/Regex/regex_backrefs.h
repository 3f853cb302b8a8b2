// Matching with back-references: searches that remember where they have been,
// and stop when their budget is spent.
#ifndef VELPROBE_MODULES_REGEX_REGEX_BACKREFS_H_
#define VELPROBE_MODULES_REGEX_REGEX_BACKREFS_H_

#include "regex_subject.h"

namespace velprobe {

struct Scratch;

// SeenSet remembers keys of one length. When its memory is used up it forgets
// new ones, which costs time only.
class SeenSet {
 public:
  void restart(std::size_t key_length, std::size_t budget);
  // release gives much memory back; restart comes before the next key.
  void release();
  // add is true when the key is new, as far as remembered.
  bool add(const Array<std::size_t>& key);

 private:
  [[nodiscard]] bool grow();
  std::size_t slot_of(const std::size_t* key) const;

  std::size_t key_length_ = 1;
  std::size_t budget_ = 0;
  Array<std::size_t> keys_;
  Array<std::uint32_t> slots_;  // numbers of keys, from 1
};

// What a search came to.
enum class Outcome { kFound, kNone, kNoSpace };

// WaySearch looks for the longest match at a begin, along all ways through the
// program.
class WaySearch {
 public:
  [[nodiscard]] bool init(const RegexProgram& program);

  // next gives the first begin from at to last that may have a match: what
  // every match begins with is looked at, as far as its length is fixed; behind
  // last there is none.
  std::size_t next(const Subject& subject, std::size_t at,
                   std::size_t last) const;

  // run sets *out_end to the end of the longest match that begins at begin,
  // with any to the end of one. Takes its steps from *budget.
  Outcome run(const Subject& subject, std::size_t begin, bool any,
              std::uint64_t* budget, std::size_t* out_end);

  // release gives back what grew with the text.
  void release();

 private:
  // What is left to do: go on at an instruction, or give a register its former
  // value back.
  struct Task {
    std::size_t pc;  // or kUndo
    std::size_t at;  // or the register
    std::size_t value;
  };
  // Two stretches at fixed distances from a match's begin that are alike.
  struct Twins {
    std::size_t first, second, length;
  };
  void find_twins();

  // The registers of a group that is referred to.
  enum GroupRegister : std::size_t { kOpened, kBegin, kEnd, kNumRegisters };
  static constexpr std::size_t kUndo = SIZE_MAX;
  static constexpr std::size_t kUnset = SIZE_MAX;

  bool follow(const Subject& subject, std::size_t pc, std::size_t at);
  bool step(const Subject& subject, Inst inst, std::size_t* pc,
            std::size_t* at);
  bool set(std::size_t number, std::size_t value);
  bool close(std::uint32_t group, std::size_t at);
  bool reset(std::uint32_t node);
  bool iterate(std::uint32_t node, std::size_t at);
  bool may_end_iteration(std::uint32_t node, std::size_t at) const;
  bool take_backref(const Subject& subject, std::uint32_t group,
                    std::size_t* at);
  bool is_new(std::size_t pc, std::size_t at);
  bool refers_to(std::uint32_t group) const {
    return group < 10 && (program_->tree.referred >> group & 1) != 0;
  }

  const RegexProgram* program_ = nullptr;
  std::size_t first_register_[10] = {};  // of each group referred to
  Array<std::uint32_t> node_registers_;  // of repetitions, 0: none
  Array<std::uint32_t> watched_;         // repetitions with a register
  Array<std::size_t> registers_;
  Array<Task> tasks_;
  Array<std::size_t> key_;
  Twins twins_ = {0, 0, 0};  // the first ones; none when of no length
  SeenSet seen_;
  bool seen_ready_ = false;
  bool any_ = false;
  bool found_ = false;
  bool failed_ = false;  // out of memory
  std::size_t end_ = 0;
  std::uint64_t* budget_ = nullptr;
  std::uint32_t free_steps_ = 0;
};

// find_parse fills in the groups of a match with back-references whose span is
// known: the first of all parses in the order of the standard.
Outcome find_parse(const Subject& subject, Scratch& scratch, std::size_t begin,
                   std::size_t end, std::uint64_t* budget, RegexSpan* spans,
                   std::size_t num_spans);

// equal_bytes compares two stretches of the text, by the flags of compiling.
bool equal_bytes(const Subject& subject, std::size_t a, std::size_t b,
                 std::size_t length);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_BACKREFS_H_
