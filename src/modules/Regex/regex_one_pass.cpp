#include "regex_one_pass.h"

#include <algorithm>

namespace velprobe {
namespace {

constexpr std::uint32_t kNoNodeYet = 0;
constexpr std::size_t kBuckets = 256;
// From here on the exits of a node may not share bytes with others.
constexpr std::uint32_t kMaxForked = 32;

}  // namespace

bool OnePass::init(const RegexProgram& program, std::size_t budget) {
  if (program_ != nullptr) return true;
  budget_ = budget;
  num_symbols_ = program.alphabet.num_symbols;
  const std::size_t stamps = program.code.size();
  last_ = program.end();
  // The nodes of a program so large would exceed the budget.
  if (stamps * sizeof seen_[0] > budget / 4) {
    use_ = Use::kNone;
  } else if (!seen_.resize(stamps) || !buckets_.resize(kBuckets) ||
             !actions_.push(make_inst(Op::kMatch))) {
    return false;
  }
  program_ = &program;
  return true;
}

// The rest begins where no cut is needed any more, or behind all groups.
bool OnePass::find_rest() {
  const Array<velprobe::Node>& nodes = program_->tree.nodes;
  const auto is_around = [](const velprobe::Node& node) {
    return node.kind == NodeKind::kGroup ||
           (node.kind == NodeKind::kRepeat && node.max == 1);
  };
  top_ = program_->tree.root;
  while (is_around(nodes[top_])) top_ = nodes[top_].child;
  if (nodes[top_].kind != NodeKind::kCat) return false;
  std::uint32_t last_varying = kNoNode;
  std::uint32_t behind_groups = kNoNode;
  for (std::uint32_t i = nodes[top_].child; i != kNoNode; i = nodes[i].next) {
    if (nodes[i].length == kVaries) last_varying = i;
    if (nodes[i].holds_group()) behind_groups = nodes[i].next;
  }
  if (last_varying == kNoNode) return false;
  rest_ = nodes[top_].child;
  while (rest_ != last_varying && rest_ != behind_groups) {
    if (!pieces_.push(nodes[rest_].first)) return false;
    rest_ = nodes[rest_].next;
  }
  last_ = nodes[rest_].first;
  // A walk notes groups at each iteration, cutting only looks into the last.
  return std::none_of(nodes.begin(), nodes.end(),
                      [&](const velprobe::Node& node) {
                        return node.kind == NodeKind::kRepeat && node.max > 1 &&
                               node.holds_group() && node.first < last_;
                      });
}

// Whatever the place: as if all assertions held.
bool OnePass::find_rest_bytes() {
  std::fill(seen_.begin(), seen_.end(), 0U);
  visits_.clear();
  if (!visits_.push({last_, 0})) return false;
  while (!visits_.empty()) {
    std::uint32_t pc = visits_.back().pc;
    visits_.pop();
    while (seen_[pc]++ == 0) {
      const Inst inst = program_->code[pc];
      if (inst.op() == Op::kByte) {
        rest_bytes_.add_all(program_->class_sets[inst.arg()]);
      }
      if (inst.op() == Op::kByte || inst.op() == Op::kMatch) break;
      if (inst.op() == Op::kSplit && !visits_.push({inst.arg(), 0})) {
        return false;
      }
      pc = inst.op() == Op::kJump ? inst.arg() : pc + 1;
    }
  }
  return true;
}

// Of no use as it is: from now on guided, if that can help.
Found OnePass::give_up() {
  const bool was_alone = use_ == Use::kAlone;
  use_ = Use::kNone;
  if (was_alone && find_rest() && find_rest_bytes()) {
    use_ = Use::kGuided;
    nodes_.clear();
    ways_.clear();
    exits_.clear();
    chains_.clear();
    actions_.shrink(1);
    std::fill(seen_.begin(), seen_.end(), 0U);
    std::fill(buckets_.begin(), buckets_.end(), 0U);
  }
  return Found::kGivenUp;
}

bool OnePass::in_other_piece(std::uint32_t pc, std::uint32_t other) const {
  const auto [low, high] = std::minmax(pc, other);
  const auto* piece = std::upper_bound(pieces_.begin(), pieces_.end(), low);
  return piece != pieces_.end() && *piece <= high;
}

bool OnePass::within_budget() const {
  return ways_.size() * sizeof(Way) + nodes_.size() * sizeof(Node) +
             exits_.size() * sizeof(Exit) + actions_.size() * sizeof(Inst) <
         budget_ / 2;
}

// The actions of a trail in the order they are to be done in; 0 for none.
bool OnePass::write_actions(std::uint32_t trail, std::uint32_t* out_actions) {
  *out_actions = 0;
  if (trail == 0) return true;
  const std::size_t begin = actions_.size();
  for (; trail != 0; trail = trails_[trail].before) {
    if (!actions_.push(trails_[trail].inst)) return false;
  }
  std::reverse(actions_.begin() + begin, actions_.end());
  *out_actions = static_cast<std::uint32_t>(begin);
  return actions_.push(make_inst(Op::kMatch));
}

bool OnePass::add_exit(Node& node, std::uint32_t pc, std::uint32_t trail) {
  Exit exit{pc, 0};
  const ByteSet& set = program_->class_sets[program_->code[pc].arg()];
  for (std::uint32_t i = 0; i < node.num_exits; ++i) {
    const std::uint32_t other = exits_[node.first_exit + i].pc;
    const bool meets =
        set.meets(program_->class_sets[program_->code[other].arg()]);
    if (meets && (i >= kMaxForked || !in_other_piece(pc, other))) {
      return false;
    }
  }
  ++node.num_exits;
  return write_actions(trail, &exit.actions) && exits_.push(exit);
}

// Follows one way that takes no byte. False when an instruction is reached for
// the second time: there are two ways.
bool OnePass::explore_from(Node& node, std::uint32_t pc, std::uint32_t trail,
                           Place place) {
  const auto stamp = static_cast<std::uint32_t>(nodes_.size());
  for (;;) {
    if (seen_[pc] == stamp) return false;
    seen_[pc] = stamp;
    ++steps;
    if (pc == last_) return write_actions(trail, &node.accept);
    if (pc > last_) return true;
    const Inst inst = program_->code[pc];
    switch (inst.op()) {
      case Op::kByte:
        return add_exit(node, pc, trail);
      case Op::kAssert:
        if (!passes(inst.arg(), place)) return true;
        break;
      case Op::kOpen:
      case Op::kClose:
      case Op::kReset:
      case Op::kIterate:
        if (!trails_.push({inst, trail})) return false;
        trail = static_cast<std::uint32_t>(trails_.size() - 1);
        break;
      case Op::kSplit:
        if (!visits_.push({inst.arg(), trail})) return false;
        break;
      default:
        break;
    }
    pc = inst.op() == Op::kJump ? inst.arg() : pc + 1;
  }
}

bool OnePass::explore(Node& node) {
  const Place place{static_cast<Kind>(node.place / kNumKinds),
                    static_cast<Kind>(node.place % kNumKinds)};
  node.first_exit = static_cast<std::uint32_t>(exits_.size());
  trails_.clear();
  visits_.clear();
  if (!trails_.push({}) || !visits_.push({node.pc, 0})) return false;
  while (!visits_.empty()) {
    const Visit visit = visits_.back();
    visits_.pop();
    if (!explore_from(node, visit.pc, visit.trail, place)) return false;
  }
  return true;
}

// The number of the node from 1; kNoNodeYet when it cannot be made.
std::uint32_t OnePass::node_at(std::uint32_t pc, Place place) {
  if (!program_->tree.has_assertions) place = {};
  const std::size_t bucket = (pc * kNumPlaces + place.index()) % kBuckets;
  for (std::uint32_t i = buckets_[bucket]; i != 0; i = chains_[i - 1]) {
    const Node& node = nodes_[i - 1];
    if (node.pc == pc && node.place == place.index()) return i;
  }
  if (!within_budget() || !nodes_.push({pc, place.index(), kNoAccept, 0, 0}) ||
      !chains_.push(buckets_[bucket])) {
    return kNoNodeYet;
  }
  const auto number = static_cast<std::uint32_t>(nodes_.size());
  buckets_[bucket] = number;
  const std::size_t row = ways_.size();
  if (!ways_.resize(row + num_symbols_)) return kNoNodeYet;
  std::fill(ways_.begin() + row, ways_.end(), Way{0, kUnmade});
  return explore(nodes_[number - 1]) ? number : kNoNodeYet;
}

OnePass::Way OnePass::way_through(Exit exit, std::uint32_t symbol) {
  const Alphabet& alphabet = program_->alphabet;
  const std::uint32_t byte_class = symbol % alphabet.num_classes;
  const Place place{alphabet.kind_of[alphabet.sample[byte_class]],
                    alphabet.kind_of_symbol(symbol)};
  const std::uint32_t next = node_at(exit.pc + 1, place);
  if (next == kNoNodeYet) return {0, kUnmade};
  return {(next - 1) * num_symbols_, exit.actions};
}

OnePass::Way OnePass::make_way(std::uint32_t row, std::uint32_t symbol) {
  const std::uint32_t byte_class = symbol % program_->alphabet.num_classes;
  const Node& node = nodes_[row / num_symbols_];
  const Exit* exit = nullptr;
  std::uint32_t num_ways = 0;
  for (std::uint32_t i = 0; i < node.num_exits; ++i) {
    const Exit& other = exits_[node.first_exit + i];
    if (!program_->takes(program_->code[other.pc], byte_class)) continue;
    exit = &other;
    ++num_ways;
  }
  if (num_ways == 0) return {0, kNowhere};
  if (node.accept != kNoAccept &&
      rest_bytes_.has(static_cast<std::uint8_t>(byte_class))) {
    ++num_ways;
  }
  return num_ways > 1 ? Way{0, kFork} : way_through(*exit, symbol);
}

// Of the exits that lead to the end, the one into the earliest piece; without
// one it is the rest that follows.
OnePass::Way OnePass::make_choice(std::uint32_t row, std::uint32_t symbol,
                                  const Dfa::Members& behind) {
  const std::uint32_t byte_class = symbol % program_->alphabet.num_classes;
  const Node& node = nodes_[row / num_symbols_];
  const Exit* first = nullptr;
  steps += node.num_exits;
  for (std::uint32_t i = 0; i < node.num_exits; ++i) {
    const Exit& exit = exits_[node.first_exit + i];
    if (program_->takes(program_->code[exit.pc], byte_class) &&
        (first == nullptr || exit.pc < first->pc) &&
        std::binary_search(behind.pcs, behind.pcs + behind.num_pcs, exit.pc)) {
      first = &exit;
    }
  }
  return first == nullptr ? Way{0, kNowhere} : way_through(*first, symbol);
}

// What was chosen is known until the states of the run back are forgotten.
bool OnePass::take_guide(const Guide& guide) {
  const std::uint32_t generation = guide.back.generation();
  if (!choices_.empty() && generation == generation_) return true;
  if (!choices_.resize(kNumChoices)) return false;
  for (Choice& choice : choices_) choice.fork = kUnmade;
  generation_ = generation;
  return true;
}

inline OnePass::Way OnePass::choose(std::uint32_t row, std::uint32_t symbol,
                                    const Guide& guide, Entry behind) {
  const std::uint32_t fork = row + symbol;
  // Of the two only the fork is waited for.
  const std::uint32_t hash = (behind * 0x9E3779B1U >> 16) + fork;
  Choice& choice = choices_[hash % kNumChoices];
  if (choice.fork != fork || choice.behind != behind) {
    const Way way = make_choice(row, symbol, guide.back.members(behind));
    choice = {fork, behind, way};
  }
  return choice.way;
}

void OnePass::act(std::uint32_t actions, std::size_t at, RegexSpan* spans,
                  std::size_t num_spans) const {
  const auto place = static_cast<std::ptrdiff_t>(at);
  for (;; ++actions) {
    const Inst inst = actions_[actions];
    const std::uint32_t arg = inst.arg();
    if (inst.op() == Op::kMatch) return;
    if (inst.op() == Op::kOpen) {
      if (arg < num_spans) spans[arg] = {place, -1};
    } else if (inst.op() == Op::kClose) {
      if (arg < num_spans) spans[arg].end = place;
    } else {
      const velprobe::Node& repeat = program_->tree.nodes[arg];
      for (std::size_t i = repeat.first_group;
           i < repeat.end_group && i < num_spans; ++i) {
        spans[i] = {-1, -1};
      }
    }
  }
}

template <bool kGuided>
Found OnePass::run(const Subject& subject, std::size_t begin, std::size_t limit,
                   const Guide* guide, std::size_t* out_end, RegexSpan* spans,
                   std::size_t num_spans) {
  steps = 0;
  for (std::size_t i = 1; i < num_spans; ++i) spans[i] = {-1, -1};
  const std::uint32_t first = node_at(0, subject.place(begin));
  if (first == kNoNodeYet) return give_up();
  std::uint32_t row = (first - 1) * num_symbols_;
  std::size_t at = begin;
  while (at < limit) {
    const std::uint32_t symbol = subject.symbol(at);
    Way way = ways_[row + symbol];
    if (way.actions != 0) {
      if (way.actions == kUnmade) {
        way = make_way(row, symbol);
        ways_[row + symbol] = way;
      }
      if constexpr (kGuided) {
        if (way.actions == kFork) {
          way = choose(row, symbol, *guide, guide->rows[at + 1 - begin]);
        }
      }
      if (way.actions == kNowhere) break;
      if (way.actions >= kFork) return give_up();
      if (way.actions != 0) act(way.actions, at, spans, num_spans);
    }
    row = way.row;
    ++at;
  }
  steps += at - begin;
  const std::uint32_t accept = nodes_[row / num_symbols_].accept;
  if (accept == kNoAccept) return Found::kNo;
  act(accept, at, spans, num_spans);
  *out_end = at;
  return Found::kYes;
}

Found OnePass::run_alone(const Subject& subject, std::size_t begin,
                         std::size_t limit, std::size_t* out_end,
                         RegexSpan* spans, std::size_t num_spans) {
  return run<false>(subject, begin, limit, nullptr, out_end, spans, num_spans);
}

Found OnePass::run_guided(const Subject& subject, std::size_t begin,
                          std::size_t limit, const Guide& guide,
                          std::size_t* out_end, RegexSpan* spans,
                          std::size_t num_spans) {
  if (!take_guide(guide)) return give_up();
  return run<true>(subject, begin, limit, &guide, out_end, spans, num_spans);
}

}  // namespace velprobe
