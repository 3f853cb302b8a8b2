#include "regex_cut.h"

#include <algorithm>

namespace velprobe {

bool SpanCutter::init(const RegexProgram& program, Walker& walker, Dfa& back,
                      Simulation& simulation, std::size_t budget) {
  if (program_ != nullptr) return true;
  walker_ = &walker;
  back_ = &back;
  simulation_ = &simulation;
  const std::size_t num_nodes = program.tree.nodes.size();
  const bool good =
      forward_.init(program, walker, Direction::kForward, budget) &&
      forward_numbers_.resize(num_nodes) && back_numbers_.resize(num_nodes) &&
      meetings_.resize(kNumMeetings);
  if (good) program_ = &program;
  for (Meeting& meeting : meetings_) meeting.forward = kUnknown;
  return good;
}

std::size_t SpanCutter::bytes() const {
  return forward_.bytes() + forward_numbers_.bytes() + back_numbers_.bytes() +
         meetings_.bytes();
}

void SpanCutter::release() {
  constexpr std::size_t kSmall = 1 << 16;
  if (rows_.bytes() > kSmall) rows_ = {};
  rest_ = {};
}

Part SpanCutter::part_of(std::uint32_t node) const {
  const Node& which = program_->tree.nodes[node];
  Part part;
  part.first = which.first;
  part.last = which.first + which.size;
  return part;
}

// The number of a node's part in an automaton; UINT32_MAX without memory.
std::uint32_t SpanCutter::number_of(Array<std::uint32_t>& numbers, Dfa& dfa,
                                    std::uint32_t node) {
  if (numbers[node] != 0) return numbers[node];
  const Part part = part_of(node);
  const std::uint32_t number = dfa.add_part(part.first, part.last);
  // There may be memory again later: the failure is not kept as the number.
  if (number != UINT32_MAX) numbers[node] = number;
  return number;
}

// Runs the node back from the end of the span to its begin. Not done when the
// states do not help.
bool SpanCutter::keep_rows(std::uint32_t part, bool keep, bool* out_done) {
  std::size_t at = end_;
  std::size_t accepted = 0;
  Entry* kept = keep ? rows_.data() : nullptr;
  const Entry entry =
      run_back(*subject_, *back_, part, begin_, &at, kept, &accepted);
  if (!keep && entry < kThrashing) rows_[0] = entry & kRowMask;
  steps += end_ - at;
  *out_done = entry < kThrashing;
  return entry != kUnknown;
}

bool SpanCutter::simulate() {
  simulated_ = true;
  return simulation_->init(*program_, *walker_) &&
         rest_.prepare(*subject_, *simulation_, part_of(node_), begin_, end_);
}

bool SpanCutter::prepare(const Subject& subject, std::uint32_t node,
                         std::size_t begin, std::size_t end, bool keep) {
  subject_ = &subject;
  node_ = node;
  begin_ = begin;
  end_ = end;
  simulated_ = false;
  back_->make_room();
  const std::uint32_t part = number_of(back_numbers_, *back_, node);
  if (part == UINT32_MAX) return false;
  if (!rows_.reserve((keep ? end - begin : 0) + 1) ||
      !rows_.resize((keep ? end - begin : 0) + 1)) {
    return false;
  }
  back_->pin(true);
  bool done = false;
  const bool good = keep_rows(part, keep, &done);
  back_->pin(false);
  return good && (done || simulate());
}

bool SpanCutter::fits(std::size_t at, std::uint32_t rest, bool* out_answer) {
  if (simulated_) {
    return rest_.fits(*subject_, *simulation_, at, rest, out_answer);
  }
  *out_answer = back_->has_mark(row_at(at), rest);
  return true;
}

bool SpanCutter::find_meeting(Entry forward, Entry backward,
                              std::uint32_t shift,
                              std::uint32_t byte_class) const {
  const Dfa::Members from = forward_.members(forward);
  const Dfa::Members to = back_->members(backward);
  for (std::uint32_t i = 0; i < from.num_pcs; ++i) {
    const std::uint32_t pc = from.pcs[i];
    if (program_->takes(program_->code[pc], byte_class) &&
        std::binary_search(to.pcs, to.pcs + to.num_pcs, pc + shift)) {
      return true;
    }
  }
  return false;
}

// Whether a piece in the state forward can go on at a place and still leave a
// rest that fits: some instruction reads the next byte in both runs.
bool SpanCutter::meet(Entry forward, std::size_t at, std::uint32_t shift) {
  const Entry backward = row_at(at + 1);
  const std::uint32_t byte_class = subject_->class_at(at);
  const std::uint32_t generation = forward_.generation() + back_->generation();
  const std::uint32_t hash =
      (forward * 31 + backward) * 31 + shift * 7 + byte_class;
  Meeting& meeting = meetings_[(hash ^ hash >> 12) % kNumMeetings];
  const bool known = meeting.forward == forward &&
                     meeting.backward == backward && meeting.shift == shift &&
                     meeting.byte_class == byte_class &&
                     meeting.generation == generation;
  if (!known) {
    steps += forward_.members(forward).num_pcs;
    meeting = {forward,    backward,
               shift,      byte_class,
               generation, find_meeting(forward, backward, shift, byte_class)};
  }
  return meeting.answer;
}

bool SpanCutter::cut_by_states(const Piece& piece, std::size_t from,
                               std::size_t* out_end, bool* out_done) {
  const Subject& subject = *subject_;
  const std::uint32_t part = number_of(forward_numbers_, forward_, piece.node);
  if (part == UINT32_MAX) return false;
  const std::uint32_t shift =
      piece.begin - program_->tree.nodes[piece.node].first;
  std::size_t at = from;
  std::size_t check = from + 1;
  Entry entry = forward_.initial(part, subject.place(at));
  for (;;) {
    if (entry >= kThrashing) break;
    const Entry row = entry & kRowMask;
    if (entry & kAccepts && back_->has_mark(row_at(at), piece.rest)) {
      *out_end = at;
    }
    if (entry & kStops || at == end_) break;
    // A piece that is beyond its cut is given up before it has doubled.
    if (at == check) {
      if (!meet(row, at, shift)) break;
      check += at - from;
    }
    const std::uint32_t symbol = subject.symbol(at++);
    entry = forward_.table()[row + symbol];
    if (entry == kUnknown) entry = forward_.step(row, symbol, at - from);
  }
  steps += at - from + 1;
  *out_done = entry < kThrashing;
  return entry != kUnknown;
}

bool SpanCutter::cut_by_simulation(const Piece& piece, std::size_t from,
                                   std::size_t* out_end) {
  const Subject& subject = *subject_;
  Simulation& simulation = *simulation_;
  const std::uint32_t last =
      piece.begin + program_->tree.nodes[piece.node].size;
  simulation.clear();
  if (!simulation.begin(piece.begin, last, subject.place(from))) return false;
  for (std::size_t at = from;; ++at) {
    bool fitting = false;
    if (simulation.accepted()) {
      if (!rest_.fits(subject, simulation, at, piece.rest, &fitting)) {
        return false;
      }
      if (fitting) *out_end = at;
    }
    if (at == end_) return true;
    if (!rest_.trim(subject, simulation, at)) return false;
    if (simulation.empty()) return true;
    if (!simulation.step(subject.class_at(at), last, subject.place(at + 1))) {
      return false;
    }
  }
}

bool SpanCutter::cut(const Piece& piece, std::size_t from,
                     std::size_t* out_end) {
  *out_end = from;
  if (!simulated_) {
    bool done = false;
    if (!cut_by_states(piece, from, out_end, &done)) return false;
    if (done) return true;
    if (!simulate()) return false;
    *out_end = from;
  }
  return cut_by_simulation(piece, from, out_end);
}

bool SpanCutter::matches_null(const Subject& subject, std::uint32_t node,
                              std::size_t at, bool* out_answer) {
  *out_answer = program_->tree.nodes[node].nullable;
  if (!*out_answer || !program_->tree.has_assertions) return true;
  const Part part = part_of(node);
  walker_->restart();
  if (!walker_->forward(part.first, part.last, subject.place(at))) return false;
  *out_answer = walker_->accepted;
  return true;
}

bool SpanCutter::ends_of(const Subject& subject, std::uint32_t node,
                         std::size_t from, std::size_t limit,
                         Array<std::size_t>& ends) {
  const std::size_t kept = ends.size();
  const Part part = part_of(node);
  const std::uint32_t number = number_of(forward_numbers_, forward_, node);
  if (number == UINT32_MAX) return false;
  Entry entry = forward_.initial(number, subject.place(from));
  for (std::size_t at = from; entry < kThrashing; ++at) {
    if (entry & kAccepts && !ends.push(at)) return false;
    if (entry & kStops || at == limit) return true;
    const Entry row = entry & kRowMask;
    const std::uint32_t symbol = subject.symbol(at);
    entry = forward_.table()[row + symbol];
    if (entry == kUnknown) entry = forward_.step(row, symbol, 1);
  }
  ends.shrink(kept);
  if (entry == kUnknown || !simulation_->init(*program_, *walker_)) {
    return false;
  }
  simulation_->clear();
  if (!simulation_->begin(part.first, part.last, subject.place(from))) {
    return false;
  }
  for (std::size_t at = from;; ++at) {
    if (simulation_->accepted() && !ends.push(at)) return false;
    if (at == limit || simulation_->empty()) return true;
    if (!simulation_->step(subject.class_at(at), part.last,
                           subject.place(at + 1))) {
      return false;
    }
  }
}

}  // namespace velprobe
