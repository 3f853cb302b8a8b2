// The groups of a match with back-references. What has to match is a list of
// goals with known spans, worked off from the left; where there is a choice the
// possibilities are tried in the order of the standard, and a goal that was
// tried before with the same spans to refer to is not tried again.
#include <algorithm>

#include "regex_search.h"

namespace velprobe {
namespace {

enum class Aim : std::uint8_t { kNode, kChildren, kIterations, kSetGroup };

struct Goal {
  Aim aim = Aim::kNode;
  std::uint32_t node = kNoNode;  // kChildren: the next child
  std::uint32_t done = 0;        // kIterations: how many
  std::uint32_t next = 0;        // the goal after this one, from 1
  std::size_t begin = 0, end = 0;
  std::size_t serial = 0;
};

// Choice is a goal to come back to, and what is left to try for it: a branch,
// the null iteration's absence, or ends from first_end on.
struct Choice {
  Goal goal;
  std::uint32_t branch;
  std::size_t first_end;
  std::size_t num_ends;
  std::size_t num_goals;
  std::size_t num_changes;
};

struct Change {
  std::uint32_t group;
  RegexSpan former;
};

class ParseSearch {
 public:
  ParseSearch(const Subject& subject, Scratch& scratch, std::uint64_t* budget)
      : subject_(subject),
        tree_(subject.program.tree),
        cutter_(scratch.cutter),
        budget_(budget) {}

  [[nodiscard]] bool init();
  Outcome run(std::size_t begin, std::size_t end);
  RegexSpan span(std::size_t group) const { return spans_[group]; }

 private:
  // What became of a goal.
  enum class Try { kHolds, kFails, kNoSpace };

  const Node& node(std::uint32_t i) const { return tree_.nodes[i]; }
  static Try done(bool good) { return good ? Try::kHolds : Try::kNoSpace; }
  bool push(Aim aim, std::uint32_t node, std::size_t begin, std::size_t end,
            std::uint32_t done = 0);
  bool set_span(std::uint32_t group, RegexSpan span);
  bool reset(const Node& repeat);
  bool offer(const Goal& goal, std::uint32_t branch, std::size_t first_end);
  Try pursue(const Goal& goal);
  Try pursue_node(const Goal& goal);
  Try pursue_children(const Goal& goal);
  Try pursue_iterations(const Goal& goal);
  Try pursue_null(const Goal& goal);
  Try choose_end(const Goal& goal, std::uint32_t node, std::size_t least);
  Try take_end(const Goal& goal, std::size_t end);
  Try take_branch(const Goal& goal, std::uint32_t branch);
  Try match_backref(const Goal& goal) const;
  Try match_plain(const Goal& goal);
  Try retry();
  bool is_new(const Goal& goal);
  std::size_t bytes() const {
    return goals_.bytes() + choices_.bytes() + changes_.bytes() + ends_.bytes();
  }

  const Subject& subject_;
  const Tree& tree_;
  SpanCutter& cutter_;
  std::uint64_t* budget_;
  Array<Goal> goals_;
  Array<Choice> choices_;
  Array<Change> changes_;
  Array<std::size_t> ends_;
  Array<RegexSpan> spans_;
  Array<std::size_t> key_;
  SeenSet seen_;
  std::uint32_t head_ = 0;
  std::size_t serial_ = 0;
};

bool ParseSearch::init() {
  if (!spans_.resize(tree_.groups.size()) || !goals_.push({})) return false;
  for (RegexSpan& span : spans_) span = {-1, -1};
  const std::size_t num_referred =
      static_cast<std::size_t>(std::popcount(tree_.referred));
  if (!key_.resize(6 + 2 * num_referred)) return false;
  seen_.restart(key_.size(), subject_.program.limits.memory / 2);
  return true;
}

bool ParseSearch::push(Aim aim, std::uint32_t node, std::size_t begin,
                       std::size_t end, std::uint32_t done) {
  if (!goals_.push({aim, node, done, head_, begin, end, ++serial_})) {
    return false;
  }
  head_ = static_cast<std::uint32_t>(goals_.size() - 1);
  return true;
}

bool ParseSearch::set_span(std::uint32_t group, RegexSpan span) {
  if (!changes_.push({group, spans_[group]})) return false;
  spans_[group] = span;
  return true;
}

bool ParseSearch::reset(const Node& repeat) {
  for (std::uint32_t i = repeat.first_group; i < repeat.end_group; ++i) {
    if (spans_[i].begin >= 0 && !set_span(i, {-1, -1})) return false;
  }
  return true;
}

// Keeps what is left to try for a goal, with all as it is now.
bool ParseSearch::offer(const Goal& goal, std::uint32_t branch,
                        std::size_t first_end) {
  return choices_.push(
      {goal, branch, first_end, ends_.size(), goals_.size(), changes_.size()});
}

bool ParseSearch::is_new(const Goal& goal) {
  std::size_t i = 0;
  // Beyond the minimum of an unbounded repetition their number does not matter.
  std::uint32_t done = goal.done;
  if (goal.aim == Aim::kIterations && node(goal.node).max == kUnbounded &&
      done > node(goal.node).value) {
    done = node(goal.node).value == 0 ? 1 : node(goal.node).value;
  }
  key_[i++] = static_cast<std::size_t>(goal.aim);
  key_[i++] = goal.node;
  key_[i++] = done;
  key_[i++] = goal.begin;
  key_[i++] = goal.end;
  key_[i++] = goals_[goal.next].serial;
  for (std::uint32_t rest = tree_.referred; rest != 0; rest &= rest - 1) {
    const RegexSpan span =
        spans_[static_cast<unsigned>(std::countr_zero(rest))];
    key_[i++] = static_cast<std::size_t>(span.begin);
    key_[i++] = static_cast<std::size_t>(span.end);
  }
  return seen_.add(key_);
}

ParseSearch::Try ParseSearch::match_backref(const Goal& goal) const {
  const RegexSpan span = spans_[node(goal.node).value];
  const std::size_t length = goal.end - goal.begin;
  const bool equal =
      span.begin >= 0 &&
      static_cast<std::size_t>(span.end - span.begin) == length &&
      equal_bytes(subject_, static_cast<std::size_t>(span.begin), goal.begin,
                  length);
  return equal ? Try::kHolds : Try::kFails;
}

// A node without groups and back-references: its automaton tells.
ParseSearch::Try ParseSearch::match_plain(const Goal& goal) {
  const std::size_t kept = ends_.size();
  if (!cutter_.ends_of(subject_, goal.node, goal.begin, goal.end, ends_)) {
    return Try::kNoSpace;
  }
  const bool matches = ends_.size() > kept && ends_.back() == goal.end;
  ends_.shrink(kept);
  return matches ? Try::kHolds : Try::kFails;
}

ParseSearch::Try ParseSearch::take_branch(const Goal& goal,
                                          std::uint32_t branch) {
  if (node(branch).next != kNoNode &&
      !offer(goal, node(branch).next, ends_.size())) {
    return Try::kNoSpace;
  }
  return done(push(Aim::kNode, branch, goal.begin, goal.end));
}

ParseSearch::Try ParseSearch::pursue_node(const Goal& goal) {
  const Node& which = node(goal.node);
  if (which.kind == NodeKind::kBackref) return match_backref(goal);
  if (!which.holds_group() && !which.has_backref) return match_plain(goal);
  switch (which.kind) {
    case NodeKind::kGroup:
      return done(push(Aim::kSetGroup, goal.node, goal.begin, goal.end) &&
                  push(Aim::kNode, which.child, goal.begin, goal.end));
    case NodeKind::kAlt:
      return take_branch(goal, which.child);
    case NodeKind::kCat:
      return done(push(Aim::kChildren, which.child, goal.begin, goal.end));
    default:
      return done(push(Aim::kIterations, goal.node, goal.begin, goal.end));
  }
}

// Tries the ends of a node from begin on, longest first.
ParseSearch::Try ParseSearch::choose_end(const Goal& goal, std::uint32_t node,
                                         std::size_t least) {
  if (!is_new(goal)) return Try::kFails;
  // The run over the text counts as well, at less.
  *budget_ -= std::min<std::uint64_t>(*budget_, (goal.end - goal.begin) / 8);
  const std::size_t first = ends_.size();
  if (!cutter_.ends_of(subject_, node, goal.begin, goal.end, ends_) ||
      !offer(goal, kNoNode, first)) {
    return Try::kNoSpace;
  }
  std::size_t dropped = first;
  while (dropped < ends_.size() && ends_[dropped] < least) ++dropped;
  choices_.back().first_end = dropped;
  return retry();
}

ParseSearch::Try ParseSearch::pursue_children(const Goal& goal) {
  if (node(goal.node).next == kNoNode) {
    return done(push(Aim::kNode, goal.node, goal.begin, goal.end));
  }
  return choose_end(goal, goal.node, goal.begin);
}

// No text is left: iterations up to the minimum are null, or the only one is.
ParseSearch::Try ParseSearch::pursue_null(const Goal& goal) {
  const Node& repeat = node(goal.node);
  const bool may = goal.done == 0 && repeat.max != 0;
  if (goal.done >= repeat.value) {
    if (!may) return Try::kHolds;
    if (!offer(goal, goal.node, ends_.size())) return Try::kNoSpace;
  }
  // All that are missing are alike.
  const std::uint32_t all = repeat.value == 0 ? 1 : repeat.value;
  return done(reset(repeat) &&
              push(Aim::kIterations, goal.node, goal.end, goal.end, all) &&
              push(Aim::kNode, repeat.child, goal.end, goal.end));
}

ParseSearch::Try ParseSearch::pursue_iterations(const Goal& goal) {
  const Node& repeat = node(goal.node);
  if (goal.begin == goal.end) return pursue_null(goal);
  if (goal.done == repeat.max) return Try::kFails;
  const bool may_be_null = goal.done < repeat.value;
  return choose_end(goal, repeat.child, goal.begin + (may_be_null ? 0 : 1));
}

ParseSearch::Try ParseSearch::take_end(const Goal& goal, std::size_t end) {
  if (goal.aim == Aim::kChildren) {
    return done(push(Aim::kChildren, node(goal.node).next, end, goal.end) &&
                push(Aim::kNode, goal.node, goal.begin, end));
  }
  const Node& repeat = node(goal.node);
  const std::uint32_t count =
      repeat.max == kUnbounded && goal.done > repeat.value ? goal.done
                                                           : goal.done + 1;
  return done(reset(repeat) &&
              push(Aim::kIterations, goal.node, end, goal.end, count) &&
              push(Aim::kNode, repeat.child, goal.begin, end));
}

ParseSearch::Try ParseSearch::pursue(const Goal& goal) {
  switch (goal.aim) {
    case Aim::kNode:
      return pursue_node(goal);
    case Aim::kChildren:
      return pursue_children(goal);
    case Aim::kIterations:
      return pursue_iterations(goal);
    default:
      return done(set_span(node(goal.node).value,
                           {static_cast<std::ptrdiff_t>(goal.begin),
                            static_cast<std::ptrdiff_t>(goal.end)}));
  }
}

// Goes back to the last choice that has something left to try.
ParseSearch::Try ParseSearch::retry() {
  while (!choices_.empty()) {
    const Choice choice = choices_.back();
    for (; changes_.size() > choice.num_changes; changes_.pop()) {
      spans_[changes_.back().group] = changes_.back().former;
    }
    goals_.shrink(choice.num_goals);
    ends_.shrink(choice.num_ends);
    head_ = choice.goal.next;
    const Goal goal = choice.goal;
    if (choice.branch != kNoNode) {
      choices_.pop();
      // Besides the null iteration there is only none at all.
      return choice.branch == goal.node ? Try::kHolds
                                        : take_branch(goal, choice.branch);
    }
    if (choice.num_ends > choice.first_end) {
      const std::size_t end = ends_.back();
      ends_.pop();
      --choices_.back().num_ends;
      return take_end(goal, end);
    }
    ends_.shrink(choice.first_end);
    choices_.pop();
  }
  return Try::kFails;
}

Outcome ParseSearch::run(std::size_t begin, std::size_t end) {
  if (!push(Aim::kNode, tree_.root, begin, end)) return Outcome::kNoSpace;
  const std::size_t most =
      subject_.program.limits.memory / 2 + 8 * (end - begin);
  while (head_ != 0) {
    if (*budget_ == 0 || bytes() > most) return Outcome::kNoSpace;
    --*budget_;
    const Goal goal = goals_[head_];
    head_ = goal.next;
    Try outcome = pursue(goal);
    if (outcome == Try::kFails) outcome = retry();
    if (outcome == Try::kFails) return Outcome::kNone;
    if (outcome == Try::kNoSpace) return Outcome::kNoSpace;
  }
  return Outcome::kFound;
}

}  // namespace

Outcome find_parse(const Subject& subject, Scratch& scratch, std::size_t begin,
                   std::size_t end, std::uint64_t* budget, RegexSpan* spans,
                   std::size_t num_spans) {
  if (!scratch.init_cutter(subject.program)) return Outcome::kNoSpace;
  ParseSearch search(subject, scratch, budget);
  if (!search.init()) return Outcome::kNoSpace;
  const Outcome outcome = search.run(begin, end);
  if (outcome != Outcome::kFound) return outcome;
  for (std::size_t i = 1; i < num_spans; ++i) spans[i] = search.span(i);
  return outcome;
}

}  // namespace velprobe
