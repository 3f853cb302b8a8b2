// Which rests of a part of the program fit the rest of a span, by simulation.
#ifndef VELPROBE_MODULES_REGEX_REGEX_REST_H_
#define VELPROBE_MODULES_REGEX_REGEX_REST_H_

#include "regex_simulation.h"
#include "regex_subject.h"

namespace velprobe {

// SimulatedRest knows for each place of a span what of a part of the program
// can follow there. To save memory only some sets are kept, and those between
// two of them, a block, are made again when asked for.
class SimulatedRest {
 public:
  // prepare runs the part back over the span. False when out of memory, also
  // when all sets would exceed the program's limit.
  [[nodiscard]] bool prepare(const Subject& subject, Simulation& simulation,
                             const Part& part, std::size_t begin,
                             std::size_t end);

  // fits tells whether the marked instruction pc leads from at to the end.
  [[nodiscard]] bool fits(const Subject& subject, Simulation& simulation,
                          std::size_t at, std::uint32_t pc, bool* out_answer);
  // trim drops from the simulation's set what cannot lead from at to the end.
  [[nodiscard]] bool trim(const Subject& subject, Simulation& simulation,
                          std::size_t at);

 private:
  std::uint64_t* set_at(std::size_t at);
  std::uint64_t* marks_at(std::size_t at) { return set_at(at) + num_words_; }
  [[nodiscard]] bool need(const Subject& subject, Simulation& simulation,
                          std::size_t at);
  [[nodiscard]] bool fill(const Subject& subject, Simulation& simulation,
                          std::size_t block);
  void record_marks(const Simulation& simulation, std::size_t at);

  static constexpr std::size_t kNoBlock = SIZE_MAX;

  Part part_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t block_size_ = 1;
  std::size_t num_words_ = 0;
  std::size_t blocks_[2] = {kNoBlock, kNoBlock};  // which are in sets_
  Array<std::uint64_t> milestones_;  // the set at the end of each block
  Array<std::uint64_t> sets_;        // of two blocks, with their marks
  Array<std::uint64_t> saved_;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_REST_H_
