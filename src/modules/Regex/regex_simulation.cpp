#include "regex_simulation.h"

#include <algorithm>

#include "regex_search.h"

namespace velprobe {
namespace {

// Masks for all classes are kept up to this size.
constexpr std::size_t kMaskBytes = 1 << 20;

void set_bit(std::uint64_t* words, std::uint32_t i) {
  words[i / 64] |= std::uint64_t{1} << (i % 64);
}

template <class Visit>
void for_each_bit(std::uint64_t word, std::size_t index, Visit visit) {
  for (; word != 0; word &= word - 1) {
    visit(static_cast<std::uint32_t>(
        index * 64 + static_cast<unsigned>(std::countr_zero(word))));
  }
}

}  // namespace

bool Simulation::init(const RegexProgram& program, Walker& walker) {
  if (program_ != nullptr) return true;
  const std::size_t words = program.code.size() / 64 + 1;
  const std::size_t classes = program.alphabet.num_classes;
  const bool masked = words * classes * sizeof(std::uint64_t) <= kMaskBytes;
  if (!now_.resize(words) || !then_.resize(words) || !is_byte_.resize(words) ||
      !is_plain_.resize(words) ||
      !masks_.resize(masked ? words * classes : 0)) {
    return false;
  }
  for (std::uint32_t pc = 0; pc < program.code.size(); ++pc) {
    const Inst inst = program.code[pc];
    const bool plain =
        pc != 0 && program.code[pc - 1].op() == Op::kByte &&
        program.jump_offsets[pc] == program.jump_offsets[pc + 1] &&
        !program.is_marked(pc);
    if (plain) set_bit(is_plain_.data(), pc);
    if (inst.op() != Op::kByte) continue;
    set_bit(is_byte_.data(), pc);
    for (std::uint32_t c = 0; masked && c < classes; ++c) {
      if (program.takes(inst, c)) set_bit(masks_.data() + c * words, pc);
    }
  }
  program_ = &program;
  walker_ = &walker;
  return true;
}

const Array<std::uint32_t>& Simulation::marks() const {
  return walker_->marks;
}

void Simulation::clear() {
  std::fill(now_.begin(), now_.end(), std::uint64_t{0});
  accepted_ = false;
}

bool Simulation::empty() const {
  return std::all_of(now_.begin(), now_.end(),
                     [](std::uint64_t word) { return word == 0; });
}

void Simulation::take_found() {
  for (std::uint32_t pc : walker_->found) set_bit(now_.data(), pc);
  walker_->found.clear();
  accepted_ |= walker_->accepted;
}

bool Simulation::begin(std::uint32_t first, std::uint32_t last, Place place) {
  walker_->restart();
  if (!walker_->forward(first, last, place)) return false;
  take_found();
  return true;
}

bool Simulation::begin_back(std::uint32_t first, std::uint32_t last,
                            Place place) {
  walker_->restart();
  if (!walker_->backward(last, first, last, place)) return false;
  take_found();
  return true;
}

// Drops from the set what does not take the class.
void Simulation::keep_class(std::uint32_t byte_class) {
  const std::size_t words = now_.size();
  walker_->steps += words;
  if (!masks_.empty()) {
    const std::uint64_t* mask = masks_.data() + byte_class * words;
    for (std::size_t i = 0; i < words; ++i) now_[i] &= mask[i];
    return;
  }
  for (std::size_t i = 0; i < words; ++i) {
    for_each_bit(now_[i], i, [&](std::uint32_t pc) {
      if (program_->takes(program_->code[pc], byte_class)) return;
      now_[i] &= ~(std::uint64_t{1} << (pc % 64));
    });
  }
}

bool Simulation::step(std::uint32_t byte_class, std::uint32_t last,
                      Place place) {
  keep_class(byte_class);
  std::uint64_t carry = 0;
  for (std::uint64_t& word : now_) {
    const std::uint64_t moved = word << 1 | carry;
    carry = word >> 63;
    word = moved;
  }
  std::uint64_t& last_word = now_[last / 64];
  const std::uint64_t last_bit = std::uint64_t{1} << (last % 64);
  accepted_ = (last_word & last_bit) != 0;
  last_word &= ~last_bit;
  walker_->restart();
  for (std::size_t i = 0; i < now_.size(); ++i) {
    const std::uint64_t others = now_[i] & ~is_byte_[i];
    now_[i] ^= others;
    bool good = true;
    for_each_bit(others, i, [&](std::uint32_t pc) {
      good = good && walker_->forward(pc, last, place);
    });
    if (!good) return false;
  }
  take_found();
  return true;
}

void Simulation::read_back(std::uint32_t byte_class) {
  keep_class(byte_class);
}

bool Simulation::move_back(std::uint32_t first, std::uint32_t last,
                           Place place) {
  walker_->restart();
  accepted_ = false;
  bool good = true;
  for (std::size_t i = 0; i < now_.size(); ++i) {
    std::uint64_t plain = now_[i] & is_plain_[i];
    if (first / 64 == i) plain &= ~(std::uint64_t{1} << (first % 64));
    then_[i] = plain;
    for_each_bit(now_[i] & ~plain, i, [&](std::uint32_t pc) {
      good = good && walker_->backward(pc, first, last, place);
    });
  }
  for (std::size_t i = 0; i < now_.size(); ++i) {
    const std::uint64_t above = i + 1 < now_.size() ? then_[i + 1] : 0;
    now_[i] = then_[i] >> 1 | above << 63;
  }
  take_found();
  return good;
}

namespace {

// The first end of any match, with the set as it stands there.
Found run_to_first_end(const Subject& subject, Simulation& simulation,
                       std::size_t begin, std::size_t* out_end) {
  const std::uint32_t last = subject.program.end();
  for (std::size_t p = begin;; ++p) {
    const bool starts = p == begin || !subject.program.anchored;
    if (starts && !simulation.begin(0, last, subject.place(p))) {
      return Found::kNoSpace;
    }
    *out_end = p;
    if (simulation.accepted()) return Found::kYes;
    if (p == subject.size) return Found::kNo;
    if (!simulation.step(subject.class_at(p), last, subject.place(p + 1))) {
      return Found::kNoSpace;
    }
  }
}

// Goes on without further begins; *end becomes the last end.
bool run_to_last_end(const Subject& subject, Simulation& simulation,
                     std::size_t* end) {
  const std::uint32_t last = subject.program.end();
  for (std::size_t p = *end;; ++p) {
    if (simulation.accepted()) *end = p;
    if (p == subject.size || simulation.empty()) return true;
    if (!simulation.step(subject.class_at(p), last, subject.place(p + 1))) {
      return false;
    }
  }
}

// The first begin of all matches that end at or before end.
bool run_to_first_begin(const Subject& subject, Simulation& simulation,
                        std::size_t begin, std::size_t end,
                        std::size_t* out_begin) {
  const std::uint32_t last = subject.program.end();
  simulation.clear();
  for (std::size_t p = end;; --p) {
    const bool reached = simulation.accepted();
    if (!simulation.begin_back(0, last, subject.place(p))) return false;
    if (reached || simulation.accepted()) *out_begin = p;
    if (p == begin) return true;
    simulation.read_back(subject.class_at(p - 1));
    if (!simulation.move_back(0, last, subject.place(p - 1))) return false;
  }
}

}  // namespace

// Without an order among the begins it takes up to four runs: to any match's
// end, on to the last end of what had begun by then, back to the first begin of
// all these, and from it to its last end.
Found simulate_search(const Subject& subject, Scratch& scratch,
                      std::size_t begin, bool any, RegexSpan* out_span) {
  Simulation& simulation = scratch.simulation;
  if (!simulation.init(subject.program, scratch.walker)) {
    return Found::kNoSpace;
  }
  simulation.clear();
  std::size_t end = begin;
  const Found found = run_to_first_end(subject, simulation, begin, &end);
  if (found != Found::kYes || any) return found;
  std::size_t first = begin;
  if (!run_to_last_end(subject, simulation, &end) ||
      !run_to_first_begin(subject, simulation, begin, end, &first)) {
    return Found::kNoSpace;
  }
  simulation.clear();
  end = first;
  if (!simulation.begin(0, subject.program.end(), subject.place(first)) ||
      !run_to_last_end(subject, simulation, &end)) {
    return Found::kNoSpace;
  }
  *out_span = {static_cast<std::ptrdiff_t>(first),
               static_cast<std::ptrdiff_t>(end)};
  return Found::kYes;
}

}  // namespace velprobe
