#include "regex_search.h"

#include <algorithm>

namespace velprobe {
namespace {

Found failure_of(Entry entry) {
  return entry == kThrashing ? Found::kGivenUp : Found::kNoSpace;
}

// Run is where a run over the text stands.
struct Run {
  const Subject& subject;
  Entry row;
  std::size_t at;
  std::size_t accepted;  // the last place where a match could end
  bool any_accepted;
};

// Follows known transitions up to the place stop, which is before the text's
// last byte when symbols tell what lies beyond. Returns the first entry from
// stopping on, with run.at behind its byte and run.row before it.
template <bool kAhead>
Entry follow(Run& run, const Entry* table, std::size_t stop, Entry stopping) {
  const Alphabet& alphabet = run.subject.program.alphabet;
  const char* text = run.subject.text;
  std::size_t at = run.at;
  Entry row = run.row;
  Entry entry = row;
  while (at < stop) {
    std::uint32_t symbol = alphabet.class_of[byte_at(text, at)];
    if constexpr (kAhead) {
      symbol += alphabet.offset_of_byte[byte_at(text, at + 1)];
    }
    entry = table[row + symbol];
    ++at;
    if (entry >= kAccepts) {
      if (entry >= stopping) break;
      run.accepted = at;
      run.any_accepted = true;
      entry &= kRowMask;
    }
    row = entry;
  }
  run.at = at;
  run.row = row;
  return entry;
}

// One step over the byte at run.at; also makes a state that follow missed.
Entry step_once(Run& run, Dfa& dfa, std::uint64_t moved) {
  const std::uint32_t symbol = run.subject.symbol(run.at++);
  const Entry known = dfa.table()[run.row + symbol];
  return known != kUnknown ? known : dfa.step(run.row, symbol, moved);
}

Entry advance(Run& run, Dfa& dfa, bool any, std::size_t* counted) {
  const Subject& subject = run.subject;
  const Alphabet& alphabet = subject.program.alphabet;
  const bool looks_ahead = alphabet.num_symbols != alphabet.num_classes;
  const std::size_t stop = subject.size - (looks_ahead ? 1 : 0);
  const Entry stopping = any ? kAccepts : kRare;
  Entry entry = alphabet.edges_only
                    ? follow<false>(run, dfa.table(), stop, stopping)
                    : follow<true>(run, dfa.table(), stop, stopping);
  if (entry == kUnknown) {
    --run.at;
  } else if (entry >= stopping || run.at == subject.size) {
    return entry;
  }
  entry = step_once(run, dfa, run.at - *counted);
  *counted = run.at;
  return entry;
}

}  // namespace

Found find_end(const Subject& subject, Scratch& scratch, std::size_t begin,
               bool any, std::size_t* out_end) {
  Dfa& dfa = scratch.search;
  Run run{subject, 0, begin, 0, false};
  std::size_t counted = begin;
  Entry entry = dfa.initial(0, subject.place(begin));
  for (;;) {
    if (entry >= kThrashing) return failure_of(entry);
    if (entry & kAccepts) {
      run.accepted = run.at;
      run.any_accepted = true;
      if (any) break;
    }
    if (entry & kStops || run.at == subject.size) break;
    run.row = entry & kRowMask;
    entry = advance(run, dfa, any, &counted);
  }
  scratch.steps += run.at - begin;
  *out_end = run.accepted;
  return run.any_accepted ? Found::kYes : Found::kNo;
}

Found find_begin(const Subject& subject, Scratch& scratch, std::size_t begin,
                 std::size_t end, std::size_t* out_begin) {
  Dfa& dfa = scratch.back;
  std::size_t at = end;
  std::size_t counted = end;
  Entry entry = dfa.initial(0, subject.place(end));
  for (;;) {
    if (entry >= kThrashing) return failure_of(entry);
    if (entry & kAccepts) *out_begin = at;
    if (entry & kStops || at == begin) break;
    const Entry row = entry & kRowMask;
    const std::uint32_t symbol = subject.symbol_back(at--);
    entry = dfa.table()[row + symbol];
    if (entry != kUnknown) continue;
    entry = dfa.step(row, symbol, counted - at);
    counted = at;
  }
  scratch.steps += end - at;
  return Found::kYes;
}

Found find_span(const Subject& subject, Scratch& scratch, std::size_t begin,
                bool any, RegexSpan* out_span) {
  std::size_t first = begin;
  std::size_t end = begin;
  Found found = find_end(subject, scratch, begin, any, &end);
  if (found == Found::kYes && !any) {
    found = find_begin(subject, scratch, begin, end, &first);
  }
  if (found == Found::kGivenUp) {
    return simulate_search(subject, scratch, begin, any, out_span);
  }
  *out_span = {static_cast<std::ptrdiff_t>(first),
               static_cast<std::ptrdiff_t>(end)};
  return found;
}

}  // namespace velprobe
