// Running the program without an automaton: one bit for each instruction, all
// moved at each byte. Slower than states that exist, faster than making them.
#ifndef VELPROBE_MODULES_REGEX_REGEX_SIMULATION_H_
#define VELPROBE_MODULES_REGEX_REGEX_SIMULATION_H_

#include "regex_automaton.h"

namespace velprobe {

// Simulation moves one set of instructions along a text. The set holds the
// kByte instructions that the next byte can be for.
class Simulation {
 public:
  [[nodiscard]] bool init(const RegexProgram& program, Walker& walker);

  void clear();
  // begin adds what the instructions from first on can read at a place.
  [[nodiscard]] bool begin(std::uint32_t first, std::uint32_t last,
                           Place place);
  // step reads a byte of a class that leads to place.
  [[nodiscard]] bool step(std::uint32_t byte_class, std::uint32_t last,
                          Place place);
  // The same backwards, over the instructions from first to last. Between the
  // two halves of step_back the set is what the byte was read by.
  [[nodiscard]] bool begin_back(std::uint32_t first, std::uint32_t last,
                                Place place);
  void read_back(std::uint32_t byte_class);
  [[nodiscard]] bool move_back(std::uint32_t first, std::uint32_t last,
                               Place place);

  // Whether the end of the part (backwards: its begin) was reached.
  bool accepted() const { return accepted_; }
  bool empty() const;

  std::size_t num_words() const { return now_.size(); }
  std::uint64_t* set() { return now_.data(); }
  // What the last step backwards reached and is marked.
  const Array<std::uint32_t>& marks() const;
  std::size_t bytes() const {
    return now_.bytes() + then_.bytes() + is_byte_.bytes() + is_plain_.bytes() +
           masks_.bytes();
  }

 private:
  void keep_class(std::uint32_t byte_class);
  void take_found();

  const RegexProgram* program_ = nullptr;
  Walker* walker_ = nullptr;
  Array<std::uint64_t> now_;
  Array<std::uint64_t> then_;
  Array<std::uint64_t> is_byte_;   // kByte instructions
  Array<std::uint64_t> is_plain_;  // reached from the kByte before it only
  Array<std::uint64_t> masks_;     // for each class what takes it; or empty
  bool accepted_ = false;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_SIMULATION_H_
