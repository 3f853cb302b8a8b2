// Skipping text where no match can begin: by a literal that every match holds,
// or by the bytes that one can begin with.
#ifndef VELPROBE_MODULES_REGEX_REGEX_FINDER_H_
#define VELPROBE_MODULES_REGEX_REGEX_FINDER_H_

#include "regex_automaton.h"

namespace velprobe {

// Needle is a run of bytes of which each may have a second form, its other
// case.
struct Needle {
  static constexpr std::size_t kMaxLength = 32;
  std::uint8_t bytes[2][kMaxLength];
  std::size_t length = 0;
  // The two rarest places, the first of them the rarer one.
  std::size_t rare[2] = {0, 0};
  int frequency = 0;  // of the rarest, expected in a thousand bytes

  bool matches(const char* text) const {
    for (std::size_t i = 0; i < length; ++i) {
      const std::uint8_t byte = byte_at(text, i);
      if (byte != bytes[0][i] && byte != bytes[1][i]) return false;
    }
    return true;
  }
};

// ByteFinder finds the next byte of a set that is a few ranges.
class ByteFinder {
 public:
  // set is false when the set has too many ranges, or is no help.
  bool set(const ByteSet& bytes);
  // find gives the first place from at on with a byte of the set, or size.
  std::size_t find(const char* text, std::size_t size, std::size_t at) const;

 private:
  static constexpr int kMaxRanges = 4;
  ByteSet set_;
  std::uint8_t first_[kMaxRanges] = {};
  std::uint8_t width_[kMaxRanges] = {};
  int num_ranges_ = 0;
  bool folds_ = false;  // the ranges are of lower-case letters, for both cases
};

// Hint is what is known about one text so far.
struct Hint {
  std::size_t needle = 0;  // its next place, valid up to there
  std::size_t begin = 0;   // where a match that holds it could begin
  bool known = false;
  std::size_t hits = 0;     // of the needle's rarest byte,
  std::size_t skipped = 0;  // and how many bytes lay before them
  std::size_t tries = 0;    // of the search to skip,
  std::size_t passed = 0;   // and how many bytes it did not read
};

// Finder knows where a match could begin.
class Finder {
 public:
  // init looks over the program. False when out of memory.
  [[nodiscard]] bool init(const RegexProgram& program, Walker& walker);

  // Whether next skips anything.
  bool skips() const { return kind_ == Kind::kNeedle || kind_ == Kind::kBytes; }
  // The expression is nothing but a literal: its length, else 0.
  std::size_t literal_length() const { return is_whole_ ? needle_.length : 0; }

  // next gives the first place from at on where a match could begin; kNone
  // when none can.
  std::size_t next(const char* text, std::size_t size, std::size_t at,
                   Hint& hint) const;
  // may_match is false when a text lacks what every match holds.
  bool may_match(const char* text, std::size_t size, std::size_t at,
                 Hint& hint) const;

  static constexpr std::size_t kNone = SIZE_MAX;

 private:
  enum class Kind { kNothing, kRequired, kNeedle, kBytes };

  // Run is a needle with what stands before it in every match.
  struct Run {
    Needle needle;
    ByteSet prior;           // the bytes that can
    std::size_t length = 0;  // theirs, or kNone
  };
  // Walk is over the parts of the expression, which wait in todo.
  struct Walk {
    Array<std::uint32_t> todo;
    // While at least so many less one wait, they are parts of something that is
    // not simply one part after the other; 0: not so.
    std::size_t inside = 0;
    Run run;
    bool whole = true;  // the run is the whole expression so far
  };
  [[nodiscard]] bool find_runs(const Tree& tree);
  void take_set(const ByteSet& set, Walk& walk);
  void enter(const Node& node, Walk& walk);
  [[nodiscard]] bool find_first_bytes(const RegexProgram& program,
                                      Walker& walker);
  void end_run(Run& run);
  bool locates(const Run& run) const;
  std::size_t find_needle(const char* text, std::size_t size, std::size_t at,
                          Hint& hint) const;
  std::size_t find_pair(const char* text, std::size_t size,
                        std::size_t at) const;

  Kind kind_ = Kind::kNothing;
  bool is_whole_ = false;
  bool has_required_ = false;
  Needle needle_;
  ByteSet prior_;
  std::size_t prior_length_ = 0;
  ByteFinder first_bytes_;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_FINDER_H_
