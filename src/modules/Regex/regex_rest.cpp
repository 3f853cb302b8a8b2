#include "regex_rest.h"

#include <algorithm>

namespace velprobe {

std::uint64_t* SimulatedRest::set_at(std::size_t at) {
  const std::size_t place = (at - begin_) % (2 * block_size_);
  return sets_.data() + place * 2 * num_words_;
}

void SimulatedRest::record_marks(const Simulation& simulation, std::size_t at) {
  std::uint64_t* marks = marks_at(at);
  std::fill_n(marks, num_words_, std::uint64_t{0});
  for (std::uint32_t pc : simulation.marks()) {
    marks[pc / 64] |= std::uint64_t{1} << (pc % 64);
  }
}

bool SimulatedRest::prepare(const Subject& subject, Simulation& simulation,
                            const Part& part, std::size_t begin,
                            std::size_t end) {
  part_ = part;
  begin_ = begin;
  end_ = end;
  num_words_ = simulation.num_words();
  for (block_size_ = 16; block_size_ * block_size_ < end - begin;) {
    block_size_ *= 2;
  }
  blocks_[0] = blocks_[1] = kNoBlock;
  const std::size_t num_blocks = (end - begin) / block_size_ + 1;
  const std::size_t needed = num_blocks + 4 * block_size_;
  const std::size_t most =
      (subject.program.limits.memory + 4 * (end - begin)) / 8;
  if (needed > most / num_words_ ||
      !milestones_.resize(num_blocks * num_words_) ||
      !sets_.resize(4 * block_size_ * num_words_) ||
      !saved_.resize(num_words_)) {
    return false;
  }
  simulation.clear();
  if (!simulation.begin_back(part.first, part.last, subject.place(end))) {
    return false;
  }
  for (std::size_t p = end;; --p) {
    if ((p - begin) % block_size_ == 0 && p != begin) {
      std::copy_n(
          simulation.set(), num_words_,
          milestones_.data() + ((p - begin) / block_size_ - 1) * num_words_);
    }
    if (p == begin) return true;
    simulation.read_back(subject.class_at(p - 1));
    if (!simulation.move_back(part.first, part.last, subject.place(p - 1))) {
      return false;
    }
  }
}

bool SimulatedRest::fill(const Subject& subject, Simulation& simulation,
                         std::size_t block) {
  const std::size_t bottom = begin_ + block * block_size_;
  std::size_t p = std::min(bottom + block_size_, end_ + 1);
  simulation.clear();
  if (p > end_) {
    p = end_;
    if (!simulation.begin_back(part_.first, part_.last, subject.place(p))) {
      return false;
    }
    std::fill_n(set_at(p), num_words_, std::uint64_t{0});
    record_marks(simulation, p);
  } else {
    std::copy_n(milestones_.data() + block * num_words_, num_words_,
                simulation.set());
  }
  while (p-- > bottom) {
    simulation.read_back(subject.class_at(p));
    std::copy_n(simulation.set(), num_words_, set_at(p));
    if (!simulation.move_back(part_.first, part_.last, subject.place(p))) {
      return false;
    }
    record_marks(simulation, p);
  }
  return true;
}

bool SimulatedRest::need(const Subject& subject, Simulation& simulation,
                         std::size_t at) {
  const std::size_t block = (at - begin_) / block_size_;
  if (blocks_[block % 2] == block) return true;
  std::copy_n(simulation.set(), num_words_, saved_.data());
  if (!fill(subject, simulation, block)) return false;
  blocks_[block % 2] = block;
  std::copy_n(saved_.data(), num_words_, simulation.set());
  return true;
}

bool SimulatedRest::fits(const Subject& subject, Simulation& simulation,
                         std::size_t at, std::uint32_t pc, bool* out_answer) {
  if (!need(subject, simulation, at)) return false;
  *out_answer = marks_at(at)[pc / 64] >> (pc % 64) & 1;
  return true;
}

bool SimulatedRest::trim(const Subject& subject, Simulation& simulation,
                         std::size_t at) {
  if (!need(subject, simulation, at)) return false;
  const std::uint64_t* kept = set_at(at);
  for (std::size_t i = 0; i < num_words_; ++i) simulation.set()[i] &= kept[i];
  return true;
}

}  // namespace velprobe
