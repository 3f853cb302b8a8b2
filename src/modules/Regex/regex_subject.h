// The text of a match, as the runs over it ask for it.
#ifndef VELPROBE_MODULES_REGEX_REGEX_SUBJECT_H_
#define VELPROBE_MODULES_REGEX_REGEX_SUBJECT_H_

#include "regex_program.h"

namespace velprobe {

// The outcome of a run.
enum class Found { kYes, kNo, kNoSpace, kGivenUp };

// Subject is the text of one call and what its edges count as.
struct Subject {
  const RegexProgram& program;
  const char* text;
  std::size_t size;
  unsigned flags;  // of regex_match

  Kind before(std::size_t p) const {
    if (p != 0) return program.alphabet.kind_of[byte_at(text, p - 1)];
    return flags & kRegexNotLineBegin ? kOther : kEdge;
  }
  Kind after(std::size_t p) const {
    if (p != size) return program.alphabet.kind_of[byte_at(text, p)];
    return flags & kRegexNotLineEnd ? kOther : kEdge;
  }
  Place place(std::size_t p) const { return {before(p), after(p)}; }
  std::uint32_t class_at(std::size_t p) const {
    return program.alphabet.class_of[byte_at(text, p)];
  }
  // The symbol of the byte at p for a run forwards, of the byte before p for
  // one backwards.
  std::uint32_t symbol(std::size_t p) const {
    const Alphabet& alphabet = program.alphabet;
    if (p + 1 == size) {
      return class_at(p) + alphabet.offset_of_kind[after(size)];
    }
    if (alphabet.edges_only) return class_at(p);
    return class_at(p) + alphabet.offset_of_byte[byte_at(text, p + 1)];
  }
  std::uint32_t symbol_back(std::size_t p) const {
    const Alphabet& alphabet = program.alphabet;
    if (p == 1) return class_at(0) + alphabet.offset_of_kind[before(0)];
    if (alphabet.edges_only) return class_at(p - 1);
    return class_at(p - 1) + alphabet.offset_of_byte[byte_at(text, p - 2)];
  }
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_SUBJECT_H_
