#include "regex_finder.h"

#include <algorithm>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace velprobe {
namespace {

// How often a byte is to be expected in a thousand of a log or a text.
int frequency_of(std::uint8_t byte) {
  static constexpr std::uint8_t kLetters[] = {
      65, 12, 25, 35, 100, 18, 17, 45, 60, 2,  6, 35, 20,
      60, 60, 17, 1,  50,  55, 75, 25, 8,  15, 2, 15, 1};
  if (byte >= 'a' && byte <= 'z') return kLetters[byte - 'a'];
  if (byte >= 'A' && byte <= 'Z') return 3;
  if (byte == ' ') return 150;
  if (is_ascii_digit(byte)) return 12;
  if (byte == '\n' || byte == '.') return 12;
  return byte > ' ' && byte < 127 ? 5 : 2;
}

// A needle that is more frequent finds its place too often to help.
constexpr int kFrequent = 60;
// So is a set of first bytes, all together.
constexpr int kFrequentSet = 150;

// The bytes at a place that has one letter or one byte; 0 when it has more.
int forms_of(const ByteSet& set, std::uint8_t* forms) {
  if (set.count() > 2) return 0;
  int n = 0;
  set.for_each([&](std::uint8_t byte) { forms[n++] = byte; });
  if (n == 1) forms[1] = forms[0];
  const bool pair =
      n == 2 && is_ascii_letter(forms[0]) && (forms[0] ^ forms[1]) == 0x20;
  return n == 1 || pair ? n : 0;
}

int frequency_at(const Needle& needle, std::size_t i) {
  const std::uint8_t a = needle.bytes[0][i];
  const std::uint8_t b = needle.bytes[1][i];
  return frequency_of(a) + (a == b ? 0 : frequency_of(b));
}

void pick_rare(Needle& needle) {
  std::size_t best = 0;
  for (std::size_t i = 1; i < needle.length; ++i) {
    if (frequency_at(needle, i) < frequency_at(needle, best)) best = i;
  }
  std::size_t second = best == 0 && needle.length > 1 ? 1 : 0;
  for (std::size_t i = 0; i < needle.length; ++i) {
    if (i != best && frequency_at(needle, i) < frequency_at(needle, second)) {
      second = i;
    }
  }
  needle.rare[0] = best;
  needle.rare[1] = second;
  needle.frequency = frequency_at(needle, best);
}

// Pushes a node's children, the first one last.
bool push_children(const Tree& tree, const Node& node,
                   Array<std::uint32_t>& todo) {
  const std::size_t begin = todo.size();
  for (std::uint32_t i = node.child; i != kNoNode; i = tree.nodes[i].next) {
    if (!todo.push(i)) return false;
    if (node.kind == NodeKind::kBackref) break;
  }
  std::reverse(todo.begin() + begin, todo.end());
  return true;
}

// Whether a set is letters only, each in both cases.
bool folds_case(const ByteSet& set) {
  bool folds = true;
  set.for_each([&](std::uint8_t byte) {
    folds &= is_ascii_letter(byte) && set.has(byte ^ 0x20);
  });
  return folds;
}

}  // namespace

bool ByteFinder::set(const ByteSet& bytes) {
  set_ = bytes;
  ByteSet ranges = bytes;
  folds_ = folds_case(bytes);
  for (unsigned byte = 'A'; folds_ && byte <= 'Z'; ++byte) {
    ranges.remove(static_cast<std::uint8_t>(byte));
  }
  int frequency = 0;
  bytes.for_each([&](std::uint8_t byte) { frequency += frequency_of(byte); });
  if (frequency > kFrequentSet) return false;
  num_ranges_ = 0;
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (!ranges.has(static_cast<std::uint8_t>(byte))) continue;
    if (num_ranges_ == kMaxRanges) return false;
    const unsigned first = byte;
    while (byte < 255 && ranges.has(static_cast<std::uint8_t>(byte + 1))) {
      ++byte;
    }
    first_[num_ranges_] = static_cast<std::uint8_t>(first);
    width_[num_ranges_++] = static_cast<std::uint8_t>(byte - first);
  }
  return true;
}

std::size_t ByteFinder::find(const char* text, std::size_t size,
                             std::size_t at) const {
#ifdef __SSE2__
  __m128i first[kMaxRanges];
  __m128i width[kMaxRanges];
  for (int i = 0; i < num_ranges_; ++i) {
    first[i] = _mm_set1_epi8(static_cast<char>(first_[i]));
    width[i] = _mm_set1_epi8(static_cast<char>(width_[i]));
  }
  const __m128i fold = _mm_set1_epi8(folds_ ? 0x20 : 0);
  for (; size - at >= 16; at += 16) {
    const __m128i bytes = _mm_or_si128(
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at)), fold);
    __m128i hit = _mm_setzero_si128();
    for (int i = 0; i < num_ranges_; ++i) {
      const __m128i off = _mm_sub_epi8(bytes, first[i]);
      hit = _mm_or_si128(hit, _mm_cmpeq_epi8(_mm_min_epu8(off, width[i]), off));
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
    if (mask != 0) return at + static_cast<unsigned>(std::countr_zero(mask));
  }
#endif
  while (at < size && !set_.has(byte_at(text, at))) ++at;
  return at;
}

// Whether the needle's next place bounds where a match can begin.
bool Finder::locates(const Run& run) const {
  return run.length != kNone || (!run.prior.has(run.needle.bytes[0][0]) &&
                                 !run.prior.has(run.needle.bytes[1][0]));
}

// Keeps a run when it is better than the best one so far.
void Finder::end_run(Run& run) {
  if (run.needle.length == 0) return;
  pick_rare(run.needle);
  const Kind kind = locates(run) && run.needle.frequency <= kFrequent
                        ? Kind::kNeedle
                        : Kind::kRequired;
  const bool better =
      kind_ == Kind::kNothing || (kind == Kind::kNeedle && kind_ != kind) ||
      (kind == kind_ && run.needle.frequency < needle_.frequency);
  if (better) {
    kind_ = kind;
    needle_ = run.needle;
    prior_ = run.prior;
    prior_length_ = run.length;
  }
  for (std::size_t i = 0; i < run.needle.length; ++i) {
    run.prior.add(run.needle.bytes[0][i]);
    run.prior.add(run.needle.bytes[1][i]);
  }
  if (run.length != kNone) run.length += run.needle.length;
  run.needle.length = 0;
}

// A set is one more byte of the run, or ends it.
void Finder::take_set(const ByteSet& set, Walk& walk) {
  Run& run = walk.run;
  std::uint8_t forms[2];
  const bool fixed = walk.inside == 0 && forms_of(set, forms) != 0;
  if (!fixed || run.needle.length == Needle::kMaxLength) end_run(run);
  if (fixed) {
    run.needle.bytes[0][run.needle.length] = forms[0];
    run.needle.bytes[1][run.needle.length++] = forms[1];
    return;
  }
  run.prior.add_all(set);
  walk.whole = false;
  if (walk.inside == 0 && run.length != kNone) ++run.length;
}

// What is not simply one part after the other ends the run, and of its parts
// only the bytes matter.
void Finder::enter(const Node& node, Walk& walk) {
  const bool plain = node.kind == NodeKind::kCat ||
                     node.kind == NodeKind::kGroup ||
                     node.kind == NodeKind::kEmpty;
  walk.whole &= plain && node.kind != NodeKind::kGroup;
  if (plain || node.kind == NodeKind::kAssert || walk.inside != 0) return;
  Run& run = walk.run;
  end_run(run);
  walk.inside = walk.todo.size() + 1;
  if (run.length != kNone) {
    run.length = node.length == kVaries ? kNone : run.length + node.length;
  }
}

// Walks over what every match consists of, one part after the other.
bool Finder::find_runs(const Tree& tree) {
  Walk walk;
  if (!walk.todo.push(tree.root)) return false;
  while (!walk.todo.empty()) {
    const Node& node = tree.nodes[walk.todo.back()];
    walk.todo.pop();
    if (walk.inside != 0 && walk.todo.size() < walk.inside - 1) walk.inside = 0;
    if (node.kind == NodeKind::kSet) {
      take_set(tree.sets[node.value], walk);
      continue;
    }
    enter(node, walk);
    if (!push_children(tree, node, walk.todo)) return false;
  }
  is_whole_ =
      walk.whole && kind_ == Kind::kNothing && walk.run.needle.length > 0;
  end_run(walk.run);
  if (is_whole_) kind_ = Kind::kNeedle;
  return true;
}

// Whatever the place: as if all assertions held.
bool Finder::find_first_bytes(const RegexProgram& program, Walker& walker) {
  ByteSet first;
  bool nullable = false;
  for (std::uint32_t i = 0; i < kNumPlaces; ++i) {
    walker.restart();
    const Place place{static_cast<velprobe::Kind>(i / kNumKinds),
                      static_cast<velprobe::Kind>(i % kNumKinds)};
    if (!walker.forward(0, program.end(), place)) return false;
    nullable |= walker.accepted;
    for (std::uint32_t pc : walker.found) {
      first.add_all(program.tree.sets[program.code[pc].arg()]);
    }
    if (!program.tree.has_assertions) break;
  }
  if (!nullable && first_bytes_.set(first)) kind_ = Kind::kBytes;
  return true;
}

bool Finder::init(const RegexProgram& program, Walker& walker) {
  if (!find_runs(program.tree)) return false;
  if (kind_ == Kind::kNeedle || program.anchored) return true;
  const Kind required = kind_;
  kind_ = Kind::kNothing;
  if (!find_first_bytes(program, walker)) return false;
  has_required_ = required == Kind::kRequired;
  return true;
}

std::size_t Finder::find_pair(const char* text, std::size_t size,
                              std::size_t at) const {
  const std::size_t i = needle_.rare[0];
  const std::size_t j = needle_.rare[1];
  std::size_t last = size < needle_.length ? 0 : size - needle_.length + 1;
#ifdef __SSE2__
  const auto all = [](std::uint8_t byte) {
    return _mm_set1_epi8(static_cast<char>(byte));
  };
  const auto load = [](const char* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  };
  const __m128i a0 = all(needle_.bytes[0][i]), a1 = all(needle_.bytes[1][i]);
  const __m128i b0 = all(needle_.bytes[0][j]), b1 = all(needle_.bytes[1][j]);
  for (; at < last && last - at >= 16; at += 16) {
    const __m128i x = load(text + at + i);
    const __m128i y = load(text + at + j);
    const __m128i hit = _mm_and_si128(
        _mm_or_si128(_mm_cmpeq_epi8(x, a0), _mm_cmpeq_epi8(x, a1)),
        _mm_or_si128(_mm_cmpeq_epi8(y, b0), _mm_cmpeq_epi8(y, b1)));
    auto mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
    for (; mask != 0; mask &= mask - 1) {
      const std::size_t place =
          at + static_cast<unsigned>(std::countr_zero(mask));
      if (needle_.matches(text + place)) return place;
    }
  }
#endif
  for (; at < last; ++at) {
    if (needle_.matches(text + at)) return at;
  }
  return kNone;
}

std::size_t Finder::find_needle(const char* text, std::size_t size,
                                std::size_t at, Hint& hint) const {
  // The C library's search for one byte is the fastest there is while it hits
  // seldom.
  constexpr std::size_t kManyHits = 16;
  constexpr std::size_t kSeldom = 64;
  const std::size_t rare = needle_.rare[0];
  const std::uint8_t byte = needle_.bytes[0][rare];
  if (byte != needle_.bytes[1][rare]) return find_pair(text, size, at);
  while (size - at >= needle_.length) {
    if (hint.hits > kManyHits && hint.skipped < kSeldom * hint.hits) {
      return find_pair(text, size, at);
    }
    const char* from = text + at + rare;
    const void* found = std::memchr(from, byte, size - at - needle_.length + 1);
    if (found == nullptr) return kNone;
    const auto moved =
        static_cast<std::size_t>(static_cast<const char*>(found) - from);
    ++hint.hits;
    hint.skipped += moved;
    at += moved;
    if (needle_.matches(text + at)) return at;
    ++at;
  }
  return kNone;
}

bool Finder::may_match(const char* text, std::size_t size, std::size_t at,
                       Hint& hint) const {
  return !has_required_ || find_needle(text, size, at, hint) != kNone;
}

std::size_t Finder::next(const char* text, std::size_t size, std::size_t at,
                         Hint& hint) const {
  if (kind_ == Kind::kBytes) {
    const std::size_t found = first_bytes_.find(text, size, at);
    return found == size ? kNone : found;
  }
  if (hint.known && hint.begin <= at && at <= hint.needle) return at;
  std::size_t from = at;
  if (prior_length_ != kNone) {
    if (prior_length_ > size - at) return kNone;
    from += prior_length_;
  }
  const std::size_t needle = find_needle(text, size, from, hint);
  if (needle == kNone) return kNone;
  if (prior_length_ != kNone) return needle - prior_length_;
  std::size_t begin = needle;
  while (begin > at && prior_.has(byte_at(text, begin - 1))) --begin;
  hint.known = true;
  hint.needle = needle;
  hint.begin = begin;
  return begin;
}

}  // namespace velprobe
