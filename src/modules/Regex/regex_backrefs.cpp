#include "regex_backrefs.h"

#include <algorithm>

#include "regex_search.h"

namespace velprobe {
namespace {

// Comparing or reading this many bytes counts as one step of a search.
constexpr std::uint64_t kBytesAStep = 64;
// So many steps at each begin are not counted: all begins of a text together
// must not spend the budget.
constexpr std::uint32_t kFreeSteps = 64;
// A candidate is looked for again after up to so many begins.
constexpr std::size_t kMaxWindow = 4096;

}  // namespace

void SeenSet::restart(std::size_t key_length, std::size_t budget) {
  key_length_ = key_length;
  budget_ = budget;
  keys_.clear();
  std::fill(slots_.begin(), slots_.end(), 0U);
}

void SeenSet::release() {
  constexpr std::size_t kSmall = 1 << 12;
  if (slots_.size() <= kSmall) return;
  slots_ = {};
  keys_ = {};
}

std::size_t SeenSet::slot_of(const std::size_t* key) const {
  std::uint64_t hash = 0;
  for (std::size_t i = 0; i < key_length_; ++i) {
    hash = (hash ^ key[i]) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 29;
  }
  std::size_t slot = hash % slots_.size();
  for (; slots_[slot] != 0; slot = (slot + 1) % slots_.size()) {
    const std::size_t* other = keys_.data() + (slots_[slot] - 1) * key_length_;
    if (std::memcmp(other, key, key_length_ * sizeof *key) == 0) break;
  }
  return slot;
}

bool SeenSet::grow() {
  const std::size_t size = slots_.empty() ? 64 : 2 * slots_.size();
  const std::size_t keys = size / 2 * key_length_;
  if (size * sizeof slots_[0] + keys * sizeof keys_[0] > budget_) return false;
  if (!keys_.reserve(keys) || !slots_.resize(size)) return false;
  std::fill(slots_.begin(), slots_.end(), 0U);
  const std::size_t count = keys_.size() / key_length_;
  for (std::size_t i = 0; i < count; ++i) {
    slots_[slot_of(keys_.data() + i * key_length_)] =
        static_cast<std::uint32_t>(i + 1);
  }
  return true;
}

bool SeenSet::add(const Array<std::size_t>& key) {
  const std::size_t count = keys_.size() / key_length_;
  const bool full = 2 * (count + 1) > slots_.size() && !grow();
  if (slots_.empty()) return true;
  const std::size_t slot = slot_of(key.data());
  if (slots_[slot] != 0) return false;
  if (full) return true;
  for (std::size_t part : key) {
    if (!keys_.push(part)) {
      keys_.shrink(count * key_length_);
      return true;
    }
  }
  slots_[slot] = static_cast<std::uint32_t>(count + 1);
  return true;
}

bool equal_bytes(const Subject& subject, std::size_t a, std::size_t b,
                 std::size_t length) {
  const char* text = subject.text;
  if (!(subject.program.flags & kRegexIgnoreCase)) {
    return length == 0 || std::memcmp(text + a, text + b, length) == 0;
  }
  for (std::size_t i = 0; i < length; ++i) {
    const std::uint8_t x = byte_at(text, a + i);
    const std::uint8_t y = byte_at(text, b + i);
    if (x == y) continue;
    if ((x ^ y) != 0x20 || !is_ascii_letter(x)) return false;
  }
  return true;
}

bool WaySearch::init(const RegexProgram& program) {
  if (program_ != nullptr) return true;
  std::size_t count = 0;
  for (std::uint32_t group = 0; group < 10; ++group) {
    if (!(program.tree.referred >> group & 1)) continue;
    first_register_[group] = count;
    count += kNumRegisters;
  }
  if (!node_registers_.resize(program.tree.nodes.size())) return false;
  for (Inst inst : program.code) {
    if (inst.op() != Op::kIterated) continue;
    std::uint32_t& number = node_registers_[inst.arg()];
    if (number != 0) continue;
    number = static_cast<std::uint32_t>(count++);
    if (!watched_.push(inst.arg())) return false;
  }
  if (!registers_.resize(count) || !key_.resize(count + 2)) return false;
  program_ = &program;
  find_twins();
  return true;
}

// Walks the program up to where it first forks or refers back.
void WaySearch::find_twins() {
  std::size_t begins[10] = {};
  std::size_t ends[10] = {};
  std::size_t at = 0;
  for (std::size_t pc = 0;; ++pc) {
    const Inst inst = program_->code[pc];
    const std::uint32_t arg = inst.arg();
    if (inst.op() == Op::kByte) {
      ++at;
    } else if (inst.op() == Op::kOpen || inst.op() == Op::kClose) {
      if (arg < 10) (inst.op() == Op::kOpen ? begins : ends)[arg] = at;
    } else if (inst.op() == Op::kBackref) {
      const std::uint32_t group = program_->backrefs[arg].group;
      twins_ = {begins[group], at, ends[group] - begins[group]};
      return;
    } else if (inst.op() != Op::kAssert) {
      return;
    }
  }
}

std::size_t WaySearch::next(const Subject& subject, std::size_t at,
                            std::size_t last) const {
  if (twins_.length == 0) return at;
  const bool folds = (program_->flags & kRegexIgnoreCase) != 0;
  for (; at <= last; ++at) {
    const std::size_t second = at + twins_.second;
    if (second + twins_.length > subject.size) return last + 1;
    const unsigned differing = byte_at(subject.text, at + twins_.first) ^
                               byte_at(subject.text, second);
    if (differing == 0 || (folds && differing == 0x20)) return at;
  }
  return at;
}

void WaySearch::release() {
  constexpr std::size_t kSmall = 1 << 12;
  if (tasks_.capacity() > kSmall) tasks_ = {};
  seen_.release();
}

bool WaySearch::set(std::size_t number, std::size_t value) {
  // Where nothing is left to go back to, nothing has to be undone.
  const bool undoes = !tasks_.empty() && registers_[number] != value;
  if (undoes && !tasks_.push({kUndo, number, registers_[number]})) return false;
  registers_[number] = value;
  return true;
}

bool WaySearch::close(std::uint32_t group, std::size_t at) {
  const std::size_t first = first_register_[group];
  return set(first + kBegin, registers_[first + kOpened]) &&
         set(first + kEnd, at);
}

bool WaySearch::reset(std::uint32_t node) {
  const Node& repeat = program_->tree.nodes[node];
  for (std::uint32_t group = repeat.first_group;
       group < repeat.end_group && group < 10; ++group) {
    if (!refers_to(group)) continue;
    const std::size_t first = first_register_[group];
    for (std::size_t i = 0; i < kNumRegisters; ++i) {
      if (!set(first + i, kUnset)) return false;
    }
  }
  // The repetitions within begin anew as well.
  for (std::uint32_t inner : watched_) {
    const Node& other = program_->tree.nodes[inner];
    const bool within = inner < node &&
                        other.first_group >= repeat.first_group &&
                        other.end_group <= repeat.end_group;
    if (within && !set(node_registers_[inner], kUnset)) return false;
  }
  return true;
}

// A watched register is twice the begin of the iteration, plus one in the first
// iteration: only that may be null.
bool WaySearch::iterate(std::uint32_t node, std::size_t at) {
  const std::uint32_t number = node_registers_[node];
  if (number == 0) return true;
  const std::size_t first = registers_[number] == kUnset ? 1 : 0;
  return set(number, 2 * at + first);
}

bool WaySearch::may_end_iteration(std::uint32_t node, std::size_t at) const {
  const std::size_t begun = registers_[node_registers_[node]];
  return (begun & 1) != 0 || begun / 2 != at;
}

bool WaySearch::take_backref(const Subject& subject, std::uint32_t group,
                             std::size_t* at) {
  const std::size_t begin = registers_[first_register_[group] + kBegin];
  if (begin == kUnset) return false;
  const std::size_t length = registers_[first_register_[group] + kEnd] - begin;
  if (length > subject.size - *at ||
      !equal_bytes(subject, begin, *at, length)) {
    return false;
  }
  *at += length;
  *budget_ -= std::min<std::uint64_t>(*budget_, length / kBytesAStep);
  return true;
}

bool WaySearch::is_new(std::size_t pc, std::size_t at) {
  if (!seen_ready_) {
    seen_.restart(key_.size(), program_->limits.memory / 2);
    seen_ready_ = true;
  }
  key_[0] = pc;
  key_[1] = at;
  std::memcpy(key_.data() + 2, registers_.data(),
              registers_.size() * sizeof registers_[0]);
  return seen_.add(key_);
}

// Does one instruction. False when there is no way on.
bool WaySearch::step(const Subject& subject, Inst inst, std::size_t* pc,
                     std::size_t* at) {
  const std::uint32_t arg = inst.arg();
  ++*pc;
  switch (inst.op()) {
    case Op::kByte:
      return *at < subject.size &&
             program_->takes(inst, subject.class_at((*at)++));
    case Op::kSplit:
      if (!is_new(*pc, *at)) return false;
      failed_ |= tasks_.size() > program_->limits.memory / 2 / sizeof(Task) ||
                 !tasks_.push({arg, *at, 0});
      return true;
    case Op::kJump:
      *pc = arg;
      return true;
    case Op::kAssert:
      return passes(arg, subject.place(*at));
    case Op::kOpen:
      if (refers_to(arg)) {
        failed_ |= !set(first_register_[arg] + kOpened, *at);
      }
      return true;
    case Op::kClose:
      if (refers_to(arg)) failed_ |= !close(arg, *at);
      return true;
    case Op::kIterate:
      failed_ |= !iterate(arg, *at);
      [[fallthrough]];
    case Op::kReset:
      failed_ |= !reset(arg);
      return true;
    case Op::kIterated:
      return may_end_iteration(arg, *at);
    case Op::kBackref:
      *pc = program_->backrefs[arg].end;
      return take_backref(subject, program_->backrefs[arg].group, at);
    default:
      return true;
  }
}

// Follows one way to its end. False to stop the whole search.
bool WaySearch::follow(const Subject& subject, std::size_t pc, std::size_t at) {
  for (;;) {
    const Inst inst = program_->code[pc];
    if (inst.op() == Op::kMatch) {
      if (!found_ || at > end_) end_ = at;
      found_ = true;
      return !any_ && at < subject.size;
    }
    if (free_steps_ != 0) {
      --free_steps_;
    } else if (*budget_ == 0) {
      failed_ = true;
      return false;
    } else {
      --*budget_;
    }
    if (!step(subject, inst, &pc, &at)) return true;
    if (failed_) return false;
  }
}

Outcome WaySearch::run(const Subject& subject, std::size_t begin, bool any,
                       std::uint64_t* budget, std::size_t* out_end) {
  budget_ = budget;
  any_ = any;
  found_ = failed_ = seen_ready_ = false;
  for (std::size_t& value : registers_) value = kUnset;
  tasks_.clear();
  free_steps_ = kFreeSteps;
  for (bool goes_on = follow(subject, 0, begin); goes_on && !tasks_.empty();) {
    const Task task = tasks_.back();
    tasks_.pop();
    if (task.pc == kUndo) {
      registers_[task.at] = task.value;
    } else {
      goes_on = follow(subject, task.pc, task.at);
    }
  }
  *out_end = end_;
  if (failed_) return Outcome::kNoSpace;
  return found_ ? Outcome::kFound : Outcome::kNone;
}

namespace {

// Tries all begins up to last.
Outcome try_begins(const Subject& subject, Scratch& scratch, std::size_t* at,
                   std::size_t last, bool any, std::uint64_t* budget,
                   std::size_t* out_end) {
  for (;; ++*at) {
    *at = scratch.ways.next(subject, *at, last);
    if (*at > last) return Outcome::kNone;
    const Outcome outcome =
        scratch.ways.run(subject, *at, any, budget, out_end);
    if (outcome != Outcome::kNone) return outcome;
  }
}

// The automata tell where a match could begin next: they read a back-reference
// as anything that its group can match. Where that is nearly everywhere they
// are asked ever less often.
Outcome search(const Subject& subject, Scratch& scratch, std::size_t begin,
               bool any, std::uint64_t* budget, RegexSpan* out_span) {
  std::size_t window = 1;
  for (std::size_t at = begin; at <= subject.size;) {
    const std::uint64_t before = scratch.steps;
    const Found found = find_span(subject, scratch, at, false, out_span);
    if (found == Found::kNo) return Outcome::kNone;
    if (found != Found::kYes) return Outcome::kNoSpace;
    const std::uint64_t cost = (scratch.steps - before) / kBytesAStep;
    *budget -= std::min(*budget, at == begin ? 0 : cost);
    const auto candidate = static_cast<std::size_t>(out_span->begin);
    window = candidate == at ? std::min(2 * window, kMaxWindow) : 1;
    at = candidate;
    std::size_t last = static_cast<std::size_t>(out_span->end);
    last = std::max(last, std::min(at + window, subject.size));
    std::size_t end = 0;
    const Outcome outcome =
        try_begins(subject, scratch, &at, last, any, budget, &end);
    if (outcome == Outcome::kNone) continue;
    *out_span = {static_cast<std::ptrdiff_t>(at),
                 static_cast<std::ptrdiff_t>(end)};
    return outcome;
  }
  return Outcome::kNone;
}

int result_of(Outcome outcome) {
  if (outcome == Outcome::kFound) return 0;
  return outcome == Outcome::kNone ? kRegexNoMatch : kRegexNoSpace;
}

}  // namespace

int match_backrefs(const Subject& subject, Scratch& scratch, std::size_t begin,
                   RegexSpan* spans, std::size_t num_spans) {
  if (!scratch.ways.init(subject.program)) return kRegexNoSpace;
  std::uint64_t budget = subject.program.limits.backref_steps;
  RegexSpan span{};
  const Outcome found =
      search(subject, scratch, begin, num_spans == 0, &budget, &span);
  scratch.steps += subject.program.limits.backref_steps - budget;
  if (found != Outcome::kFound || num_spans == 0) return result_of(found);
  for (std::size_t i = 1; i < num_spans; ++i) spans[i] = {-1, -1};
  spans[0] = span;
  if (num_spans == 1) return 0;
  return result_of(find_parse(
      subject, scratch, static_cast<std::size_t>(span.begin),
      static_cast<std::size_t>(span.end), &budget, spans, num_spans));
}

}  // namespace velprobe
