// The spans of the groups, cut out of a match from the outside in. The order of
// the standard is taken literally: of a sequence on a known span the first part
// is as long as the rest allows, then the second; of a repetition each
// iteration; of alternatives it is the first that fits.
#include <algorithm>

#include "regex_search.h"

namespace velprobe {
namespace {

class GroupFinder {
 public:
  GroupFinder(const Subject& subject, Scratch& scratch, RegexSpan* spans,
              std::size_t num_spans)
      : subject_(subject),
        tree_(subject.program.tree),
        cutter_(scratch.cutter),
        one_pass_(scratch.one_pass),
        items_(scratch.items),
        spans_(spans),
        num_spans_(num_spans) {}

  [[nodiscard]] bool run(std::size_t begin, std::size_t end);

 private:
  const Node& node(std::uint32_t i) const { return tree_.nodes[i]; }
  bool wants(std::uint32_t i) const {
    return node(i).holds_group() && node(i).first_group < num_spans_;
  }
  bool push(const GroupItem& item) {
    return !wants(item.node) || items_.push(item);
  }
  // What has to be known of a sequence before it is cut.
  struct Sequence {
    std::uint32_t last_wanted = kNoNode;
    std::uint32_t last_varying = kNoNode;
    std::size_t behind = 0;  // the length of all that follows last_varying
    bool needs_cut = false;
  };
  Sequence look_over(const Node& cat) const;
  bool must_cut(const Sequence& sequence, std::uint32_t i) const {
    return node(i).length == kVaries && i != sequence.last_varying;
  }
  bool open(const GroupItem& item);
  bool open_alternatives(const GroupItem& item);
  bool open_sequence(const GroupItem& item);
  bool walk_guided(const GroupItem& item, std::size_t* out_end);
  bool open_repetition(const GroupItem& item);
  bool find_last_iteration(const GroupItem& item, GroupItem* out_last);

  const Subject& subject_;
  const Tree& tree_;
  SpanCutter& cutter_;
  OnePass& one_pass_;
  Array<GroupItem>& items_;
  RegexSpan* spans_;
  std::size_t num_spans_;
};

bool GroupFinder::open_alternatives(const GroupItem& item) {
  if (!cutter_.prepare(subject_, item.node, item.begin, item.end, false)) {
    return false;
  }
  for (std::uint32_t i = node(item.node).child; i != kNoNode;
       i = node(i).next) {
    bool fits = false;
    if (!cutter_.fits(item.begin, node(i).first, &fits)) return false;
    if (fits) return push({i, item.begin, item.end});
  }
  return true;
}

GroupFinder::Sequence GroupFinder::look_over(const Node& cat) const {
  Sequence sequence;
  for (std::uint32_t i = cat.child; i != kNoNode; i = node(i).next) {
    const bool varies = node(i).length == kVaries;
    sequence.behind = varies ? 0 : sequence.behind + node(i).length;
    if (varies) sequence.last_varying = i;
    if (wants(i)) sequence.last_wanted = i;
  }
  for (std::uint32_t i = cat.child;; i = node(i).next) {
    sequence.needs_cut |= must_cut(sequence, i);
    if (i == sequence.last_wanted) return sequence;
  }
}

// Walks over the first children of the sequence that the cutter has just been
// prepared for. False when that is not possible, and all is as it was.
bool GroupFinder::walk_guided(const GroupItem& item, std::size_t* out_end) {
  if (item.node != one_pass_.top() || !one_pass_.runs_guided() ||
      !cutter_.has_guide()) {
    return false;
  }
  const Guide guide = cutter_.guide();
  const Found found = one_pass_.run_guided(subject_, item.begin, item.end,
                                           guide, out_end, spans_, num_spans_);
  cutter_.steps += one_pass_.steps;
  if (found != Found::kYes) {
    std::fill(spans_ + 1, spans_ + num_spans_, RegexSpan{-1, -1});
    *out_end = item.begin;
  }
  // The walk began in front of the groups around the sequence.
  for (std::uint32_t i = tree_.root; i != item.node; i = node(i).child) {
    if (node(i).kind == NodeKind::kGroup && node(i).value < num_spans_) {
      spans_[node(i).value] = spans_[0];
    }
  }
  return found == Found::kYes;
}

// Only up to the last child that holds a group is the span cut. Lengths that
// are fixed need no cut, nor does the last child whose length is not.
bool GroupFinder::open_sequence(const GroupItem& item) {
  const Sequence sequence = look_over(node(item.node));
  std::uint32_t first = node(item.node).child;
  std::size_t at = item.begin;
  if (sequence.needs_cut) {
    if (!cutter_.prepare(subject_, item.node, item.begin, item.end, true)) {
      return false;
    }
    if (walk_guided(item, &at)) first = one_pass_.rest();
  }
  if (node(sequence.last_wanted).first < node(first).first) return true;
  for (std::uint32_t i = first;; i = node(i).next) {
    const Node& child = node(i);
    std::size_t end = at + child.length;
    if (i == sequence.last_varying) {
      end = item.end - sequence.behind;
    } else if (must_cut(sequence, i) &&
               !cutter_.cut({i, child.first, child.first + child.size}, at,
                            &end)) {
      return false;
    }
    if (!push({i, at, end})) return false;
    if (i == sequence.last_wanted) return true;
    at = end;
  }
}

bool GroupFinder::find_last_iteration(const GroupItem& item,
                                      GroupItem* out_last) {
  const Node& repeat = node(item.node);
  std::size_t at = item.begin;
  for (std::uint32_t i = 0; at < item.end && i < repeat.max; ++i) {
    const Piece piece{repeat.child, copy_begin(tree_, repeat, i),
                      iterations_end(tree_, repeat, i + 1)};
    std::size_t end = at;
    if (!cutter_.cut(piece, at, &end)) return false;
    *out_last = {repeat.child, at, end};
    // Iterations beyond the minimum are never null.
    if (end == at && i >= repeat.value) return true;
    at = end;
    if (at == item.end && i + 1 < repeat.value) {
      *out_last = {repeat.child, at, at};
    }
  }
  return true;
}

bool GroupFinder::open_repetition(const GroupItem& item) {
  const Node& repeat = node(item.node);
  if (item.begin == item.end) {
    bool matches = repeat.value > 0;
    if (!matches &&
        !cutter_.matches_null(subject_, repeat.child, item.begin, &matches)) {
      return false;
    }
    return !matches || push({repeat.child, item.begin, item.end});
  }
  GroupItem last{repeat.child, item.begin, item.end};
  if (repeat.max == 1) return push(last);
  const Node& child = node(repeat.child);
  if (child.length != kVaries && child.length > 0) {
    last.begin = item.end - child.length;
    return push(last);
  }
  return cutter_.prepare(subject_, item.node, item.begin, item.end, true) &&
         find_last_iteration(item, &last) && push(last);
}

bool GroupFinder::open(const GroupItem& item) {
  const Node& which = node(item.node);
  switch (which.kind) {
    case NodeKind::kGroup:
      if (which.value < num_spans_) {
        spans_[which.value] = {static_cast<std::ptrdiff_t>(item.begin),
                               static_cast<std::ptrdiff_t>(item.end)};
      }
      return push({which.child, item.begin, item.end});
    case NodeKind::kCat:
      return open_sequence(item);
    case NodeKind::kAlt:
      return open_alternatives(item);
    case NodeKind::kRepeat:
      return open_repetition(item);
    default:
      return true;
  }
}

bool GroupFinder::run(std::size_t begin, std::size_t end) {
  items_.clear();
  if (!push({tree_.root, begin, end})) return false;
  while (!items_.empty()) {
    const GroupItem item = items_.back();
    items_.pop();
    if (!open(item)) return false;
  }
  return true;
}

}  // namespace

Found find_by_one_pass(const Subject& subject, Scratch& scratch,
                       std::size_t begin, RegexSpan* out_span, RegexSpan* spans,
                       std::size_t num_spans) {
  OnePass& one_pass = scratch.one_pass;
  const std::size_t budget = subject.program.limits.memory / 16;
  out_span->begin = static_cast<std::ptrdiff_t>(begin);
  if (!one_pass.init(subject.program, budget)) return Found::kNoSpace;
  if (!one_pass.runs_alone()) return Found::kGivenUp;
  Hint hint;
  std::size_t first = begin;
  if (scratch.finder.skips()) {
    first = scratch.finder.next(subject.text, subject.size, begin, hint);
    if (first == Finder::kNone) return Found::kNo;
  }
  std::size_t end = first;
  const Found found =
      one_pass.run_alone(subject, first, subject.size, &end, spans, num_spans);
  scratch.steps += one_pass.steps;
  *out_span = {static_cast<std::ptrdiff_t>(first),
               static_cast<std::ptrdiff_t>(end)};
  return found == Found::kYes ? found : Found::kGivenUp;
}

int find_groups(const Subject& subject, Scratch& scratch, RegexSpan span,
                RegexSpan* spans, std::size_t num_spans) {
  const auto span_end = static_cast<std::size_t>(span.end);
  if (scratch.one_pass.runs_alone()) {
    std::size_t end = 0;
    const Found found = scratch.one_pass.run_alone(
        subject, static_cast<std::size_t>(span.begin), span_end, &end, spans,
        num_spans);
    scratch.steps += scratch.one_pass.steps;
    if (found == Found::kYes && end == span_end) return 0;
  }
  for (std::size_t i = 1; i < num_spans; ++i) spans[i] = {-1, -1};
  if (!scratch.init_cutter(subject.program)) return kRegexNoSpace;
  scratch.cutter.steps = 0;
  GroupFinder finder(subject, scratch, spans, num_spans);
  const bool good = finder.run(static_cast<std::size_t>(span.begin), span_end);
  scratch.steps += scratch.cutter.steps;
  return good ? 0 : kRegexNoSpace;
}

}  // namespace velprobe
