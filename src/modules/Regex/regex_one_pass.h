// Groups in one run, for expressions that at each byte have one way to go on.
#ifndef VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_
#define VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_

#include "regex_automaton.h"
#include "regex_subject.h"

namespace velprobe {

// OnePass walks the only way that a text leaves through the program and notes
// where groups begin and end. Its nodes are made when a text first gets there;
// once there are two ways from one, it is of no use for the program any more.
class OnePass {
 public:
  [[nodiscard]] bool init(const RegexProgram& program, std::size_t budget);

  // run walks from begin on up to limit at most. Kind::kYes: the longest match
  // that begins there ends at *out_end, and the groups are in spans; where
  // exact is set it ends at limit. kNo: there is none, or it may be shorter
  // than what was read. kGivenUp: of no use.
  Found run(const Subject& subject, std::size_t begin, std::size_t limit,
            bool exact, std::size_t* out_end, RegexSpan* spans,
            std::size_t num_spans);

  bool useful() const { return useful_; }
  std::uint64_t steps = 0;  // of the last run

 private:
  // Way is where a byte leads and what is noted before it.
  struct Way {
    std::uint32_t row;      // of the next node
    std::uint32_t actions;  // 0: none; or one of those below
  };
  static constexpr std::uint32_t kUnmade = UINT32_MAX;
  static constexpr std::uint32_t kNowhere = UINT32_MAX - 1;
  static constexpr std::uint32_t kNoAccept = UINT32_MAX;

  // Node stands behind a byte, at a place.
  struct Node {
    std::uint32_t pc;
    std::uint32_t place;
    std::uint32_t accept;  // the actions when a match ends here, or kNoAccept
    std::uint32_t first_exit;
    std::uint32_t num_exits;
  };
  // Exit is an instruction for the next byte, with the actions before it.
  struct Exit {
    std::uint32_t pc;
    std::uint32_t actions;
  };
  // What leads to an instruction within one node: an action and those before.
  struct Trail {
    Inst inst;
    std::uint32_t before;
  };
  struct Visit {
    std::uint32_t pc;
    std::uint32_t trail;
  };

  std::uint32_t node_at(std::uint32_t pc, Place place);
  [[nodiscard]] bool explore(Node& node);
  [[nodiscard]] bool explore_from(Node& node, std::uint32_t pc,
                                  std::uint32_t trail, Place place);
  bool add_exit(Node& node, std::uint32_t pc, std::uint32_t trail);
  bool write_actions(std::uint32_t trail, std::uint32_t* out_actions);
  bool make_way(std::uint32_t row, std::uint32_t symbol);
  void act(std::uint32_t actions, std::size_t at, RegexSpan* spans,
           std::size_t num_spans) const;
  bool within_budget() const;

  const RegexProgram* program_ = nullptr;
  std::size_t budget_ = 0;
  bool useful_ = true;
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
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_ONE_PASS_H_
