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
  const Tree& tree = program.tree;
  // The nodes of a program so large would exceed the budget.
  if (stamps * sizeof seen_[0] > budget / 4) {
    use_ = Use::kNone;
  } else if (!seen_.resize(stamps) || !buckets_.resize(kBuckets) ||
             !actions_.push(make_inst(Op::kMatch)) || !find_pieces(tree)) {
    return false;
  }
  program_ = &program;
  return true;
}

// Where what follows a child has a fixed length, it ends where the sequence
// does, less that length: its own children are pieces, too.
bool OnePass::find_pieces(const Tree& tree) {
  pieces_.clear();
  for (std::uint32_t next = tree.root; next != kNoNode;) {
    const std::uint32_t i = next;
    const velprobe::Node& node = tree.nodes[i];
    const bool wraps = node.kind == NodeKind::kGroup ||
                       (node.kind == NodeKind::kRepeat && node.max == 1);
    next = wraps ? node.child : kNoNode;
    if (node.kind != NodeKind::kCat) continue;
    if (pieces_.empty()) top_ = i;
    for (std::uint32_t j = node.child; j != kNoNode; j = tree.nodes[j].next) {
      if (!pieces_.push(tree.nodes[j].first)) return false;
      if (tree.nodes[j].length == kVaries) next = j;
    }
  }
  std::sort(pieces_.begin(), pieces_.end());
  return true;
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
    if (set.meets(program_->class_sets[program_->code[other].arg()]) &&
        (i >= kMaxForked || !in_other_piece(pc, other))) {
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
    const Inst inst = program_->code[pc];
    switch (inst.op()) {
      case Op::kMatch:
        return write_actions(trail, &node.accept);
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
  const Exit* only = nullptr;
  for (std::uint32_t i = 0; i < node.num_exits; ++i) {
    const Exit& exit = exits_[node.first_exit + i];
    if (!program_->takes(program_->code[exit.pc], byte_class)) continue;
    if (only != nullptr) return {0, kFork};
    only = &exit;
  }
  return only == nullptr ? Way{0, kNowhere} : way_through(*only, symbol);
}

// Of the exits that lead to the end, the one into the earliest piece.
OnePass::Way OnePass::make_choice(std::uint32_t row, std::uint32_t symbol,
                                  const Dfa::Members& behind) {
  const std::uint32_t byte_class = symbol % program_->alphabet.num_classes;
  const Node& node = nodes_[row / num_symbols_];
  const Exit* first = nullptr;
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

OnePass::Way OnePass::choose(std::uint32_t row, std::uint32_t symbol,
                             const Guide& guide, Entry behind) {
  const std::uint32_t fork = row + symbol;
  const std::uint32_t generation = guide.back.generation();
  const std::uint32_t hash = (fork * 31 + behind) * 0x9E3779B1U;
  Choice& choice = choices_[(hash >> 16) % kNumChoices];
  if (choice.fork != fork || choice.behind != behind ||
      choice.generation != generation) {
    const Way way = make_choice(row, symbol, guide.back.members(behind));
    choice = {fork, behind, generation, way};
  }
  return choice.way;
}

// What ways_ says of a byte when it does not name a way.
OnePass::Way OnePass::find_way(std::uint32_t row, std::uint32_t symbol,
                               const Guide* guide, std::size_t num_read) {
  Way way = ways_[row + symbol];
  if (way.actions == kUnmade) {
    way = make_way(row, symbol);
    ways_[row + symbol] = way;
  }
  if (way.actions == kFork && guide != nullptr) {
    way = choose(row, symbol, *guide, guide->rows[num_read + 1]);
  }
  if (way.actions == kUnmade) use_ = Use::kNone;
  if (way.actions == kFork) use_ = Use::kGuided;
  return way;
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

bool OnePass::init_choices() {
  if (!choices_.empty()) return true;
  if (!choices_.resize(kNumChoices)) return false;
  for (Choice& choice : choices_) choice.fork = kUnmade;
  return true;
}

Found OnePass::run(const Subject& subject, std::size_t begin, std::size_t limit,
                   const Guide* guide, std::size_t* out_end, RegexSpan* spans,
                   std::size_t num_spans) {
  steps = 0;
  for (std::size_t i = 1; i < num_spans; ++i) spans[i] = {-1, -1};
  const std::uint32_t first = node_at(0, subject.place(begin));
  if (first == kNoNodeYet || (guide != nullptr && !init_choices())) {
    use_ = Use::kNone;
    return Found::kGivenUp;
  }
  std::uint32_t row = (first - 1) * num_symbols_;
  std::size_t at = begin;
  while (at < limit) {
    const std::uint32_t symbol = subject.symbol(at);
    Way way = ways_[row + symbol];
    if (way.actions != 0) {
      if (way.actions >= kFork) way = find_way(row, symbol, guide, at - begin);
      if (way.actions == kNowhere) break;
      if (way.actions >= kFork) return Found::kGivenUp;
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

}  // namespace velprobe
