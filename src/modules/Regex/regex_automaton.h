// Automata whose states are made when a text first asks for them. A state
// stands for a set of instructions; its row in a table leads on by symbol.
#ifndef VELPROBE_MODULES_REGEX_REGEX_AUTOMATON_H_
#define VELPROBE_MODULES_REGEX_REGEX_AUTOMATON_H_

#include "regex_program.h"

namespace velprobe {

// Entry of the table: where the row of the next state begins, and what the
// loops over a text have to know about that state.
using Entry = std::uint32_t;
inline constexpr Entry kRowMask = (1U << 28) - 1;
inline constexpr Entry kStart = 1U << 28;      // nothing is under way
inline constexpr Entry kAccepts = 1U << 29;    // a match ends here
inline constexpr Entry kStops = 1U << 30;      // no state follows
inline constexpr Entry kUnknown = UINT32_MAX;  // to be made by dfa_step
// Not an entry: states would be made faster than they are used.
inline constexpr Entry kThrashing = UINT32_MAX - 1;

// Walker follows what takes no byte, forwards and backwards, and collects the
// instructions it gets to. Each is visited once between two calls of restart.
class Walker {
 public:
  [[nodiscard]] bool init(const RegexProgram& program);
  void restart();

  // Forwards from pc up to the instruction last: kByte instructions go to
  // found; accepted is set when last is reached.
  [[nodiscard]] bool forward(std::uint32_t pc, std::uint32_t last, Place place);
  // Backwards from pc down to first, over instructions from first to last
  // only: to found go the kByte instructions right before what is reached, to
  // marks what is reached and marked; accepted is set when first is reached.
  [[nodiscard]] bool backward(std::uint32_t pc, std::uint32_t first,
                              std::uint32_t last, Place place);

  Array<std::uint32_t> found;
  Array<std::uint32_t> marks;
  bool accepted = false;
  std::uint64_t steps = 0;
  std::size_t bytes() const;

 private:
  bool visit(std::uint32_t pc) {
    if (stamps_[pc] == stamp_) return false;
    stamps_[pc] = stamp_;
    ++steps;
    return true;
  }
  bool push_jumps(std::uint32_t pc, std::uint32_t first, std::uint32_t last);

  const RegexProgram* program_ = nullptr;
  Array<std::uint32_t> stamps_;
  std::uint32_t stamp_ = 0;
  Array<std::uint32_t> stack_;
};

// Part is a stretch of the program that an automaton runs over: what the
// instructions from first on do before last.
struct Part {
  std::uint32_t first = 0;
  std::uint32_t last = 0;
  Entry initial[kNumPlaces] = {};
};

enum class Direction { kSearch, kForward, kBackward };

// Dfa is the states of one direction. A searching one also begins anew at each
// place; its states are lists of sets, earlier begins first, and a match drops
// what began later. A backward one begins at the end of a part.
class Dfa {
 public:
  [[nodiscard]] bool init(const RegexProgram& program, Walker& walker,
                          Direction direction, std::size_t budget);

  // add_part numbers a part; UINT32_MAX when out of memory.
  std::uint32_t add_part(std::uint32_t first, std::uint32_t last);

  // initial gives the state at the begin (backwards: at the end) of a part, at
  // the given place; kUnknown when out of memory, kThrashing as step.
  Entry initial(std::uint32_t part, Place place);

  // step makes the state that follows row on symbol. moved is how many bytes
  // were read since the last call. kThrashing: the states are forgotten more
  // often than they help; also when pinned and the budget is spent.
  // kUnknown: out of memory.
  Entry step(Entry row, std::uint32_t symbol, std::uint64_t moved);

  std::size_t bytes() const;
  const Entry* table() const { return table_.data(); }
  // Whether states where nothing is under way have kStart. Forgets all states.
  void tag_start(bool tags);
  // While pinned, no state is forgotten.
  void pin(bool pinned) { pinned_ = pinned; }
  // make_room forgets all states when they use more than half the budget.
  void make_room();
  // Changes whenever states were forgotten.
  std::uint32_t generation() const { return generation_; }

  // What a state stands for: sorted instructions, for a searching automaton
  // several such lists, and behind kSetEnd the marks.
  struct Members {
    const std::uint32_t* pcs;
    std::uint32_t num_pcs;
    const std::uint32_t* marks;
    std::uint32_t num_marks;
  };
  Members members(Entry row) const;
  // has_mark tells whether pc is among the marks of a backward state.
  bool has_mark(Entry row, std::uint32_t pc);

  static constexpr std::uint32_t kSetEnd = UINT32_MAX;

 private:
  struct State {
    std::uint32_t part;
    std::uint32_t set;  // where its members begin in sets_
    std::uint32_t num_pcs;
    std::uint32_t size;  // of all members
    std::uint32_t chain;
    Entry tagged;
    std::uint32_t asked_mark;
    std::uint8_t start_place;  // of a begin at this place, or kNoStart
    bool asked_answer;
  };
  static constexpr std::uint8_t kNoStart = 255;
  static constexpr std::size_t kNumBuckets = 1024;

  struct StartSet {
    Array<std::uint32_t> pcs;
    bool accepted = false;
    bool known = false;
  };

  [[nodiscard]] bool step_forward(const State& from, std::uint32_t symbol);
  [[nodiscard]] bool step_back(const State& from, std::uint32_t symbol);
  [[nodiscard]] bool step_pc(std::uint32_t pc, std::uint32_t byte_class,
                             std::uint32_t last, Place place);
  [[nodiscard]] bool begin_anew(Place place, bool stopped);
  [[nodiscard]] bool end_set();
  [[nodiscard]] bool end_back();
  const StartSet* start_set(Place place);
  Place place_behind(std::uint32_t symbol) const;
  void begin_members();
  Entry intern(std::uint32_t part);
  Entry find(std::uint32_t part, std::uint32_t hash) const;
  Entry add_state(std::uint32_t part, std::uint32_t hash);
  std::uint32_t hash_members(std::uint32_t part) const;
  bool has_room() const;
  template <class T>
  [[nodiscard]] static bool grow(Array<T>& array, std::size_t size);
  void forget();

  const RegexProgram* program_ = nullptr;
  Walker* walker_ = nullptr;
  Direction direction_ = Direction::kForward;
  std::size_t budget_ = 0;
  std::uint32_t shift_ = 0;
  Array<Entry> table_;
  Array<State> states_;
  Array<std::uint32_t> sets_;
  Array<std::uint32_t> buckets_;
  Array<Part> parts_;
  StartSet starts_[kNumPlaces];
  bool pinned_ = false;
  bool tags_start_ = false;
  std::uint32_t generation_ = 0;
  std::uint64_t moved_ = 0;  // since states were last forgotten

  // The state being made.
  Array<std::uint32_t> members_;
  std::uint32_t num_pcs_ = 0;
  bool accepts_ = false;
  std::uint8_t start_place_ = kNoStart;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_AUTOMATON_H_
