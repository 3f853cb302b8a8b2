// What one match at a time works with.
#ifndef VELPROBE_MODULES_REGEX_REGEX_SCRATCH_H_
#define VELPROBE_MODULES_REGEX_REGEX_SCRATCH_H_

#include "regex_backrefs.h"
#include "regex_cut.h"
#include "regex_finder.h"
#include "regex_one_pass.h"

namespace velprobe {

// A node whose match is known, and whose groups are to be found.
struct GroupItem {
  std::uint32_t node;
  std::size_t begin, end;
};

// Scratch stays with the program from one match to the next.
struct Scratch {
  Walker walker;
  Finder finder;
  Dfa search;
  Dfa back;
  Simulation simulation;
  SpanCutter cutter;
  OnePass one_pass;
  WaySearch ways;
  Array<GroupItem> items;
  Array<RegexSpan> spans;
  std::uint64_t steps = 0;  // of the last match: bytes read

  [[nodiscard]] bool init(const RegexProgram& program);
  // Before the cutter's first use.
  [[nodiscard]] bool init_cutter(const RegexProgram& program) {
    return cutter.init(program, walker, back, simulation,
                       program.limits.memory / 16);
  }
  // release gives back what grew with the text; what is left takes bytes.
  void release();
  std::size_t bytes() const {
    return walker.bytes() + search.bytes() + back.bytes() + cutter.bytes() +
           simulation.bytes();
  }
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_SCRATCH_H_
