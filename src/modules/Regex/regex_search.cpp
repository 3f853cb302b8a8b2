#include "regex_search.h"

#include <algorithm>

namespace velprobe {
namespace {

Found failure_of(Entry entry) {
  return entry == kThrashing ? Found::kGivenUp : Found::kNoSpace;
}

// The row is what each byte has to wait for, so the symbol is not added to it
// but to the table; without the empty statement compilers do it the other way.
inline Entry entry_at(const Entry* table, Entry row, std::uint32_t symbol) {
  const Entry* column = table + symbol;
  __asm__("" : "+r"(column));
  return column[row];
}

// Run is where a run over the text stands.
struct Run {
  const Subject& subject;
  Entry row;
  std::size_t at;
  std::size_t from;      // where reading began,
  std::size_t read;      // and how much was read before
  std::size_t accepted;  // the last place where a match could end
  bool any_accepted;

  void accept(std::size_t place) {
    accepted = place;
    any_accepted = true;
  }
};

// Follows known transitions up to the place stop, which is before the text's
// last byte when symbols tell what lies beyond. Returns the first entry with
// one of the given bits, with run.at behind its byte and run.row before it.
template <bool kAhead>
Entry follow(Run& run, const Entry* table, std::size_t stop, Entry bits) {
  const Alphabet& alphabet = run.subject.program.alphabet;
  const char* text = run.subject.text;
  std::size_t at = run.at;
  std::size_t accepted = SIZE_MAX;
  Entry row = run.row;
  Entry entry = row;
  while (at < stop) {
    std::uint32_t symbol = alphabet.class_of[byte_at(text, at)];
    if constexpr (kAhead) {
      symbol += alphabet.offset_of_byte[byte_at(text, at + 1)];
    }
    entry = entry_at(table, row, symbol);
    ++at;
    if (entry > kRowMask) {
      if (entry & bits) break;
      if (entry & kAccepts) accepted = at;
      entry &= kRowMask;
    }
    row = entry;
  }
  if (accepted != SIZE_MAX) run.accept(accepted);
  run.at = at;
  run.row = row;
  return entry;
}

// Moves on until a state needs a look; the entry is that of the state at
// run.at.
Entry advance(Run& run, Dfa& dfa, Entry bits, std::size_t* counted) {
  const Subject& subject = run.subject;
  const Alphabet& alphabet = subject.program.alphabet;
  const bool looks_ahead = alphabet.num_symbols != alphabet.num_classes;
  const std::size_t stop = subject.size - (looks_ahead ? 1 : 0);
  const Entry entry = alphabet.edges_only
                          ? follow<false>(run, dfa.table(), stop, bits)
                          : follow<true>(run, dfa.table(), stop, bits);
  if (entry == kUnknown) {
    --run.at;
  } else if (entry & bits || run.at == subject.size) {
    return entry;
  }
  const std::uint32_t symbol = subject.symbol(run.at++);
  const Entry known = dfa.table()[run.row + symbol];
  if (known != kUnknown) return known;
  const std::size_t moved = run.at - *counted;
  *counted = run.at;
  return dfa.step(run.row, symbol, moved);
}

// Skips to where a match could begin. False when none can. Gives up when it
// does not get far.
bool skip(Run& run, Scratch& scratch, Hint& hint, Entry* entry,
          std::size_t* counted) {
  constexpr std::size_t kTries = 32;
  constexpr std::size_t kWorthwhile = 24;
  const Subject& subject = run.subject;
  const std::size_t at =
      scratch.finder.next(subject.text, subject.size, run.at, hint);
  if (at == Finder::kNone) return false;
  const std::size_t moved = at - run.at;
  hint.passed += moved;
  if (++hint.tries % kTries == 0) {
    if (hint.passed < kTries * kWorthwhile) scratch.search.tag_start(false);
    hint.passed = 0;
  }
  scratch.steps += moved / 16;
  run.read += run.at - run.from;
  run.at = run.from = *counted = at;
  *entry = scratch.search.initial(0, subject.place(at));
  return true;
}

}  // namespace

// Follows known transitions back to stop, which is behind the text's first byte
// when symbols tell what lies before. Returns the first entry that is unknown
// or stops, with *at before its byte and *row behind it.
template <bool kAhead>
Entry follow_back(const Subject& subject, const Entry* table, std::size_t stop,
                  std::size_t begin, std::size_t* at, Entry* row, Entry* kept,
                  std::size_t* accepted) {
  const Alphabet& alphabet = subject.program.alphabet;
  std::size_t place = *at;
  Entry entry = *row;
  while (place > stop) {
    std::uint32_t symbol = alphabet.class_of[byte_at(subject.text, place - 1)];
    if constexpr (kAhead) {
      symbol += alphabet.offset_of_byte[byte_at(subject.text, place - 2)];
    }
    const Entry next = entry_at(table, *row, symbol);
    if (next == kUnknown) {
      entry = kUnknown;
      break;
    }
    entry = next;
    --place;
    *row = entry & kRowMask;
    if (entry & kAccepts) *accepted = place;
    if (kept != nullptr) kept[place - begin] = *row;
    if (entry & kStops) break;
  }
  *at = place;
  return entry;
}

Entry run_back(const Subject& subject, Dfa& dfa, std::uint32_t part,
               std::size_t begin, std::size_t* at, Entry* kept,
               std::size_t* accepted) {
  const Alphabet& alphabet = subject.program.alphabet;
  const bool looks_ahead = alphabet.num_symbols != alphabet.num_classes;
  const std::size_t stop = std::max<std::size_t>(begin, looks_ahead ? 1 : 0);
  Entry entry = dfa.initial(part, subject.place(*at));
  for (std::size_t counted = *at;;) {
    if (entry >= kThrashing) return entry;
    Entry row = entry & kRowMask;
    if (entry & kAccepts) *accepted = *at;
    if (kept != nullptr) kept[*at - begin] = row;
    if (entry & kStops || *at == begin) return entry;
    entry = alphabet.edges_only
                ? follow_back<false>(subject, dfa.table(), stop, begin, at,
                                     &row, kept, accepted)
                : follow_back<true>(subject, dfa.table(), stop, begin, at, &row,
                                    kept, accepted);
    if ((entry != kUnknown && entry & kStops) || *at == begin) return entry;
    const std::uint32_t symbol = subject.symbol_back(*at);
    --*at;
    entry = dfa.table()[row + symbol];
    if (entry != kUnknown) continue;
    entry = dfa.step(row, symbol, counted - *at);
    counted = *at;
  }
}

Found find_end(const Subject& subject, Scratch& scratch, std::size_t begin,
               bool any, std::size_t* out_end) {
  Dfa& dfa = scratch.search;
  Hint hint;
  if (!scratch.finder.may_match(subject.text, subject.size, begin, hint)) {
    return Found::kNo;
  }
  Run run{subject, 0, begin, begin, 0, 0, false};
  const Entry bits = kStops | kStart | (any ? kAccepts : 0);
  std::size_t counted = begin;
  Entry entry = dfa.initial(0, subject.place(begin));
  for (;;) {
    if (entry >= kThrashing) return failure_of(entry);
    if (entry & kAccepts) {
      run.accept(run.at);
      if (any) break;
    }
    if (entry & kStops) break;
    if (entry & kStart) {
      if (!skip(run, scratch, hint, &entry, &counted)) break;
      if (entry & (kStops | kAccepts)) continue;
    }
    if (run.at == subject.size) break;
    run.row = entry & kRowMask;
    entry = advance(run, dfa, bits, &counted);
  }
  scratch.steps += run.read + run.at - run.from;
  *out_end = run.accepted;
  return run.any_accepted ? Found::kYes : Found::kNo;
}

Found find_begin(const Subject& subject, Scratch& scratch, std::size_t begin,
                 std::size_t end, std::size_t* out_begin) {
  *out_begin = begin;
  if (subject.program.anchored || begin == end) return Found::kYes;
  std::size_t at = end;
  const Entry entry =
      run_back(subject, scratch.back, 0, begin, &at, nullptr, out_begin);
  scratch.steps += end - at;
  return entry < kThrashing ? Found::kYes : failure_of(entry);
}

namespace {

Found find_literal(const Subject& subject, Scratch& scratch, std::size_t begin,
                   std::size_t length, RegexSpan* out_span) {
  Hint hint;
  const std::size_t at =
      scratch.finder.next(subject.text, subject.size, begin, hint);
  if (at == Finder::kNone) return Found::kNo;
  scratch.steps += (at - begin) / 16 + length;
  *out_span = {static_cast<std::ptrdiff_t>(at),
               static_cast<std::ptrdiff_t>(at + length)};
  return Found::kYes;
}

}  // namespace

Found find_span(const Subject& subject, Scratch& scratch, std::size_t begin,
                bool any, RegexSpan* out_span) {
  if (const std::size_t length = scratch.finder.literal_length()) {
    return find_literal(subject, scratch, begin, length, out_span);
  }
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
