#include "regex_automaton.h"

#include <algorithm>

namespace velprobe {
namespace {

// A state has to serve this many bytes on average before it is forgotten.
constexpr std::uint64_t kBytesAState = 10;
// With fewer states forgotten at a time their number says nothing.
constexpr std::size_t kFewStates = 16;

}  // namespace

bool Dfa::init(const RegexProgram& program, Walker& walker, Direction direction,
               std::size_t budget) {
  program_ = &program;
  walker_ = &walker;
  direction_ = direction;
  budget_ = budget;
  shift_ = static_cast<std::uint32_t>(
      std::bit_width(program.alphabet.num_symbols - 1));
  return buckets_.resize(kNumBuckets) &&
         add_part(0, program.end()) != UINT32_MAX;
}

std::uint32_t Dfa::add_part(std::uint32_t first, std::uint32_t last) {
  Part part;
  part.first = first;
  part.last = last;
  std::fill_n(part.initial, kNumPlaces, kUnknown);
  if (!parts_.push(part)) return UINT32_MAX;
  return static_cast<std::uint32_t>(parts_.size() - 1);
}

void Dfa::begin_members() {
  members_.clear();
  num_pcs_ = 0;
  accepts_ = false;
  start_place_ = kNoStart;
  walker_->restart();
}

// What the walker found becomes the next set of the state.
bool Dfa::end_set() {
  Array<std::uint32_t>& found = walker_->found;
  if (!found.empty()) {
    std::sort(found.begin(), found.end());
    const std::size_t separator = members_.empty() ? 0 : 1;
    if (!members_.reserve(2 * (members_.size() + found.size() + 1))) {
      return false;
    }
    if (separator != 0 && !members_.push(kSetEnd)) return false;
    for (std::uint32_t pc : found) {
      if (!members_.push(pc)) return false;
    }
    found.clear();
  }
  num_pcs_ = static_cast<std::uint32_t>(members_.size());
  return true;
}

bool Dfa::end_back() {
  if (!end_set()) return false;
  Array<std::uint32_t>& marks = walker_->marks;
  std::sort(marks.begin(), marks.end());
  if (!members_.push(kSetEnd)) return false;
  for (std::uint32_t pc : marks) {
    if (!members_.push(pc)) return false;
  }
  accepts_ = walker_->accepted;
  return true;
}

const Dfa::StartSet* Dfa::start_set(Place place) {
  StartSet& start = starts_[place.index()];
  if (start.known) return &start;
  walker_->restart();
  if (!walker_->forward(0, program_->end(), place)) return nullptr;
  start.accepted = walker_->accepted;
  start.pcs.swap(walker_->found);
  start.known = true;
  return &start;
}

Entry Dfa::initial(std::uint32_t part, Place place) {
  if (!program_->tree.has_assertions) place = {};
  const Entry known = parts_[part].initial[place.index()];
  if (known != kUnknown) return known;
  const Part& which = parts_[part];
  begin_members();
  bool good = true;
  if (direction_ == Direction::kBackward) {
    good = walker_->backward(which.last, which.first, which.last, place) &&
           end_back();
  } else if (direction_ == Direction::kForward || program_->anchored) {
    good = walker_->forward(which.first, which.last, place) && end_set();
    accepts_ = walker_->accepted;
  } else {
    const StartSet* start = start_set(place);
    good = start != nullptr;
    begin_members();
    good = good && begin_anew(place, false);
  }
  if (!good) return kUnknown;
  const Entry entry = intern(part);
  if (entry < kThrashing) parts_[part].initial[place.index()] = entry;
  return entry;
}

// A begin at the place that the state stands at: only remembered, as long as
// it does not match the null string there.
bool Dfa::begin_anew(Place place, bool stopped) {
  if (stopped) return true;
  const StartSet& start = starts_[place.index()];
  if (!start.accepted) {
    start_place_ = static_cast<std::uint8_t>(place.index());
    return true;
  }
  if (!walker_->forward(0, program_->end(), place)) return false;
  accepts_ = true;
  return end_set();
}

bool Dfa::step_pc(std::uint32_t pc, std::uint32_t byte_class,
                  std::uint32_t last, Place place) {
  ++walker_->steps;
  return !program_->takes(program_->code[pc], byte_class) ||
         walker_->forward(pc + 1, last, place);
}

Place Dfa::place_behind(std::uint32_t symbol) const {
  const Alphabet& alphabet = program_->alphabet;
  const std::uint32_t byte_class = symbol % alphabet.num_classes;
  const Kind read = alphabet.kind_of[alphabet.sample[byte_class]];
  const Kind beyond = alphabet.kind_of_symbol(symbol);
  return direction_ == Direction::kBackward ? Place{beyond, read}
                                            : Place{read, beyond};
}

bool Dfa::step_forward(const State& from, std::uint32_t symbol) {
  const std::uint32_t byte_class = symbol % program_->alphabet.num_classes;
  const Place place = place_behind(symbol);
  const std::uint32_t last = parts_[from.part].last;
  const bool searches = from.start_place != kNoStart;
  if (searches && start_set(place) == nullptr) return false;
  begin_members();
  for (std::uint32_t i = 0; i < from.num_pcs && !accepts_; ++i) {
    const std::uint32_t pc = sets_[from.set + i];
    if (pc != kSetEnd && !step_pc(pc, byte_class, last, place)) return false;
    const bool set_ends =
        i + 1 == from.num_pcs || sets_[from.set + i + 1] == kSetEnd;
    if (!set_ends) continue;
    if (!end_set()) return false;
    accepts_ = walker_->accepted;
  }
  if (!searches || accepts_) return true;
  for (std::uint32_t pc : starts_[from.start_place].pcs) {
    if (!step_pc(pc, byte_class, last, place)) return false;
  }
  if (!end_set()) return false;
  accepts_ = walker_->accepted;
  return begin_anew(place, accepts_);
}

bool Dfa::step_back(const State& from, std::uint32_t symbol) {
  const std::uint32_t byte_class = symbol % program_->alphabet.num_classes;
  const Place place = place_behind(symbol);
  const Part& part = parts_[from.part];
  begin_members();
  for (std::uint32_t i = 0; i < from.num_pcs; ++i) {
    const std::uint32_t pc = sets_[from.set + i];
    ++walker_->steps;
    if (program_->takes(program_->code[pc], byte_class) &&
        !walker_->backward(pc, part.first, part.last, place)) {
      return false;
    }
  }
  return end_back();
}

Entry Dfa::step(Entry row, std::uint32_t symbol, std::uint64_t moved) {
  moved_ += moved;
  const State from = states_[row >> shift_];
  const bool good = direction_ == Direction::kBackward
                        ? step_back(from, symbol)
                        : step_forward(from, symbol);
  if (!good) return kUnknown;
  const std::uint32_t generation = generation_;
  const Entry entry = intern(from.part);
  if (entry < kThrashing && generation == generation_) {
    table_[row + symbol] = entry;
  }
  return entry;
}

std::uint32_t Dfa::hash_members(std::uint32_t part) const {
  std::uint32_t hash = part * 31 + start_place_ * 2U + (accepts_ ? 1U : 0U);
  for (std::uint32_t pc : members_) hash = (hash ^ pc) * 0x9E3779B1U;
  return hash ^ hash >> 15;
}

Entry Dfa::find(std::uint32_t part, std::uint32_t hash) const {
  for (std::uint32_t i = buckets_[hash % kNumBuckets]; i != 0;) {
    const State& state = states_[i - 1];
    const bool same =
        state.part == part && state.size == members_.size() &&
        state.num_pcs == num_pcs_ && state.start_place == start_place_ &&
        ((state.tagged & kAccepts) != 0) == accepts_ &&
        std::equal(members_.begin(), members_.end(), sets_.data() + state.set);
    if (same) return state.tagged;
    i = state.chain;
  }
  return kUnknown;
}

bool Dfa::has_room() const {
  const std::size_t used =
      table_.size() * sizeof(Entry) + states_.size() * sizeof(State) +
      sets_.size() * sizeof(std::uint32_t) + parts_.size() * sizeof(Part);
  const std::size_t more = (sizeof(Entry) << shift_) + sizeof(State) +
                           members_.size() * sizeof(std::uint32_t);
  return used + more <= budget_ && table_.size() < kRowMask / 2;
}

void Dfa::forget() {
  table_.clear();
  states_.clear();
  sets_.clear();
  std::fill(buckets_.begin(), buckets_.end(), 0U);
  for (Part& part : parts_) std::fill_n(part.initial, kNumPlaces, kUnknown);
  ++generation_;
  moved_ = 0;
}

void Dfa::tag_start(bool tags) {
  tags_start_ = tags;
  forget();
}

std::size_t Dfa::bytes() const {
  return table_.bytes() + states_.bytes() + sets_.bytes() + parts_.bytes();
}

void Dfa::make_room() {
  const std::size_t used = table_.size() * sizeof(Entry) +
                           states_.size() * sizeof(State) +
                           sets_.size() * sizeof(std::uint32_t);
  if (used > budget_ / 2) forget();
}

Entry Dfa::intern(std::uint32_t part) {
  const std::uint32_t hash = hash_members(part);
  const Entry known = find(part, hash);
  if (known != kUnknown) return known;
  if (!has_room()) {
    const bool useful = moved_ >= kBytesAState * states_.size();
    const bool few = states_.size() < kFewStates;
    if (pinned_) return kThrashing;
    forget();
    if (!useful || few || !has_room()) return kThrashing;
  }
  return add_state(part, hash);
}

// Makes room for size values; by a quarter more, for memory is counted.
template <class T>
bool Dfa::grow(Array<T>& array, std::size_t size) {
  if (size <= array.capacity()) return true;
  return array.reserve(size + array.capacity() / 4 + 64);
}

Entry Dfa::add_state(std::uint32_t part, std::uint32_t hash) {
  const std::size_t index = states_.size();
  const std::size_t row = index << shift_;
  State state{};
  state.part = part;
  state.set = static_cast<std::uint32_t>(sets_.size());
  state.num_pcs = num_pcs_;
  state.size = static_cast<std::uint32_t>(members_.size());
  state.chain = buckets_[hash % kNumBuckets];
  state.start_place = start_place_;
  state.asked_mark = UINT32_MAX;
  state.tagged = static_cast<Entry>(row) | (accepts_ ? kAccepts : 0);
  const bool has_pcs = num_pcs_ != 0;
  const bool starts = start_place_ != kNoStart;
  if (!has_pcs && !starts) state.tagged |= kStops;
  if (!has_pcs && starts && tags_start_) state.tagged |= kStart;
  const std::size_t new_row = std::size_t{1} << shift_;
  if (!grow(sets_, state.set + members_.size()) ||
      !grow(table_, row + new_row) || !table_.resize(row + new_row) ||
      !grow(states_, index + 1) || !states_.push(state)) {
    return kUnknown;
  }
  for (std::uint32_t pc : members_) {
    if (!sets_.push(pc)) return kUnknown;
  }
  std::fill_n(table_.data() + row, new_row, kUnknown);
  buckets_[hash % kNumBuckets] = static_cast<std::uint32_t>(index + 1);
  return state.tagged;
}

Dfa::Members Dfa::members(Entry row) const {
  const State& state = states_[(row & kRowMask) >> shift_];
  const std::uint32_t* pcs = sets_.data() + state.set;
  const std::uint32_t behind = state.num_pcs + 1;
  if (state.size < behind) return {pcs, state.num_pcs, nullptr, 0};
  return {pcs, state.num_pcs, pcs + behind, state.size - behind};
}

bool Dfa::has_mark(Entry row, std::uint32_t pc) {
  State& state = states_[(row & kRowMask) >> shift_];
  if (state.asked_mark == pc) return state.asked_answer;
  const Members all = members(row);
  state.asked_mark = pc;
  state.asked_answer =
      std::binary_search(all.marks, all.marks + all.num_marks, pc);
  return state.asked_answer;
}

}  // namespace velprobe
