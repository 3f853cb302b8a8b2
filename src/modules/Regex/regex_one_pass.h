// Groups in one run, for expressions that at each byte have one way to go on,
// or whose ways the states of a run back decide between.
#ifndef VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_
#define VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_

#include "regex_automaton.h"
#include "regex_subject.h"

namespace velprobe {

// Guide is the states that a run back over a span kept, one for each place from
// its begin on.
struct Guide {
  const Dfa& back;
  const Entry* rows;
};

// OnePass walks the only way that a text leaves through the program and notes
// where groups begin and end. Its nodes are made when a text first gets there;
// once there are two ways from one, it is of no use alone any more.
//
// It may then still be of use with a guide, for the children of a sequence that
// is the whole expression: where ways into different children take a byte, the
// earlier child is to be as long as it can be, so the way into it is taken if
// it leads to the end. Two ways within a child make it of no use at all. Such
// a walk ends where the rest begins: the last child whose length varies, or
// what is behind all groups.
class OnePass {
 public:
  [[nodiscard]] bool init(const RegexProgram& program, std::size_t budget);

  // run_alone walks from begin on up to limit at most. Found::kYes: the longest
  // match that begins there ends at *out_end, and the groups are in spans. kNo:
  // there is none, or it may be shorter than what was read. kGivenUp: of no use
  // any more.
  Found run_alone(const Subject& subject, std::size_t begin, std::size_t limit,
                  std::size_t* out_end, RegexSpan* spans,
                  std::size_t num_spans);
  // run_guided walks over a match that ends at limit, over which the guide ran
  // back the whole expression. The rest begins at *out_end, and spans has the
  // groups of what is before; any other result is as above.
  Found run_guided(const Subject& subject, std::size_t begin, std::size_t limit,
                   const Guide& guide, std::size_t* out_end, RegexSpan* spans,
                   std::size_t num_spans);

  // Which of the two is of use, if any.
  bool runs_alone() const { return use_ == Use::kAlone; }
  bool runs_guided() const { return use_ == Use::kGuided; }
  // With runs_guided: the sequence, and its child where the rest begins.
  std::uint32_t top() const { return top_; }
  std::uint32_t rest() const { return rest_; }
  std::uint64_t steps = 0;  // of the last run

 private:
  enum class Use { kAlone, kGuided, kNone };
  // Way is where a byte leads and what is noted before it.
  struct Way {
    std::uint32_t row;      // of the next node
    std::uint32_t actions;  // 0: none; or one of those below
  };
  static constexpr std::uint32_t kUnmade = UINT32_MAX;
  static constexpr std::uint32_t kNowhere = UINT32_MAX - 1;
  static constexpr std::uint32_t kFork = UINT32_MAX - 2;
  static constexpr std::uint32_t kNoAccept = UINT32_MAX;

  // Node stands behind a byte, at a place.
  struct Node {
    std::uint32_t pc;
    std::uint32_t place;
    std::uint32_t accept;  // the actions when last_ is reached, or kNoAccept
    std::uint32_t first_exit;
    std::uint32_t num_exits;
  };
  // Exit is an instruction for the next byte, with the actions before it.
  struct Exit {
    std::uint32_t pc;
    std::uint32_t actions;
  };
  // Choice is the way that was chosen at a fork, known by its place in ways_,
  // for what follows behind the byte.
  struct Choice {
    std::uint32_t fork;
    Entry behind;
    Way way;
  };
  static constexpr std::size_t kNumChoices = 128;
  // What leads to an instruction within one node: an action and those before.
  struct Trail {
    Inst inst;
    std::uint32_t before;
  };
  struct Visit {
    std::uint32_t pc;
    std::uint32_t trail;
  };

  [[nodiscard]] bool find_rest();
  [[nodiscard]] bool find_rest_bytes();
  Found give_up();
  bool in_other_piece(std::uint32_t pc, std::uint32_t other) const;
  template <bool kGuided>
  Found run(const Subject& subject, std::size_t begin, std::size_t limit,
            const Guide* guide, std::size_t* out_end, RegexSpan* spans,
            std::size_t num_spans);
  std::uint32_t node_at(std::uint32_t pc, Place place);
  [[nodiscard]] bool explore(Node& node);
  [[nodiscard]] bool explore_from(Node& node, std::uint32_t pc,
                                  std::uint32_t trail, Place place);
  bool add_exit(Node& node, std::uint32_t pc, std::uint32_t trail);
  bool write_actions(std::uint32_t trail, std::uint32_t* out_actions);
  Way way_through(Exit exit, std::uint32_t symbol);
  Way make_way(std::uint32_t row, std::uint32_t symbol);
  Way make_choice(std::uint32_t row, std::uint32_t symbol,
                  const Dfa::Members& behind);
  Way choose(std::uint32_t row, std::uint32_t symbol, const Guide& guide,
             Entry behind);
  [[nodiscard]] bool take_guide(const Guide& guide);
  void act(std::uint32_t actions, std::size_t at, RegexSpan* spans,
           std::size_t num_spans) const;
  bool within_budget() const;

  const RegexProgram* program_ = nullptr;
  std::size_t budget_ = 0;
  Use use_ = Use::kAlone;
  std::uint32_t last_ = 0;  // the instruction that walks end at
  std::uint32_t top_ = kNoNode;
  std::uint32_t rest_ = kNoNode;
  ByteSet rest_bytes_;  // classes that the rest can begin with
  std::uint32_t num_symbols_ = 0;
  Array<Way> ways_;
  Array<Node> nodes_;
  Array<Exit> exits_;
  Array<Inst> actions_;  // runs of them, each ended by kMatch
  Array<Trail> trails_;
  Array<Visit> visits_;
  Array<std::uint32_t> seen_;  // instructions seen in the node being explored
  Array<std::uint32_t> buckets_;
  Array<std::uint32_t> chains_;
  Array<std::uint32_t> pieces_;  // where the children before the rest begin
  Array<Choice> choices_;
  std::uint32_t generation_ = 0;  // of the states that choices_ are for
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_
