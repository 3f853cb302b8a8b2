#include "md5.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "../../util/byte_order.h"
#include "wipe.h"

namespace velprobe {
namespace {

constexpr std::size_t kBlock = sizeof Md5::pending;
constexpr std::size_t kLengthSize = sizeof Md5::length;

// sine by Taylor's series, at most a full turn away from 0: exact to far more
// than the 32 bits wanted.
constexpr double sine(double x) {
  constexpr double kTurn = 6.283185307179586476925287;
  while (x > kTurn / 2) x -= kTurn;
  double term = x;
  double sum = x;
  for (int n = 3; n < 40; n += 2) {
    term *= -x * x / (n * (n - 1));
    sum += term;
  }
  return sum;
}

// Table T of RFC 1321, section 3.4.
constexpr std::array<std::uint32_t, 64> make_table() {
  std::array<std::uint32_t, 64> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    const double value = sine(static_cast<double>(i + 1));
    table[i] =
        static_cast<std::uint32_t>(4294967296.0 * (value < 0 ? -value : value));
  }
  return table;
}

constexpr std::array<std::uint32_t, 64> kTable = make_table();
static_assert(kTable[0] == 0xd76aa478 && kTable[63] == 0xeb86d391);

// A round of 16 steps takes the words from `first` in steps of `stride`.
struct Round {
  std::size_t first;
  std::size_t stride;
  int rotations[4];
};

constexpr Round kRounds[4] = {{0, 1, {7, 12, 17, 22}},
                              {1, 5, {5, 9, 14, 20}},
                              {5, 3, {4, 11, 16, 23}},
                              {0, 7, {6, 10, 15, 21}}};

template <class Word>
void store_little_endian(Word word, std::uint8_t* bytes) {
  for (std::size_t i = 0; i < sizeof word; ++i) {
    bytes[i] = static_cast<std::uint8_t>(word >> (8 * i));
  }
}

// add_function adds F, G, H or I of RFC 1321 to sum. Only b is fresh from the
// step before, so what needs no b comes first; the halves of G share no bits,
// which lets them join by additions.
template <std::size_t kRound>
inline std::uint32_t add_function(std::uint32_t sum, std::uint32_t b,
                                  std::uint32_t c, std::uint32_t d) {
  if constexpr (kRound == 0) return sum + (((c ^ d) & b) ^ d);
  if constexpr (kRound == 1) return sum + (~d & c) + (d & b);
  if constexpr (kRound == 2) return sum + (b ^ (c ^ d));
  if constexpr (kRound == 3) return sum + (c ^ (b | ~d));
}

// step turns word (64 - kStep) % 4 of the state, counting on from there for b,
// c and d: instead of the words, their names move on.
template <std::size_t kStep>
inline void step(std::uint32_t (&state)[4], const std::uint8_t* block) {
  constexpr Round kRound = kRounds[kStep / 16];
  constexpr std::size_t kWord = (kRound.first + kRound.stride * kStep) % 16;
  std::uint32_t& a = state[(64 - kStep) % 4];
  const std::uint32_t b = state[(65 - kStep) % 4];
  const std::uint32_t c = state[(66 - kStep) % 4];
  const std::uint32_t d = state[(67 - kStep) % 4];
  const std::uint32_t sum =
      a + load_little_endian(block + 4 * kWord) + kTable[kStep];
  a = b + std::rotl(add_function<kStep / 16>(sum, b, c, d),
                    kRound.rotations[kStep % 4]);
}

template <std::size_t... kSteps>
inline void run_steps(std::uint32_t (&state)[4], const std::uint8_t* block,
                      std::index_sequence<kSteps...>) {
  (step<kSteps>(state, block), ...);
}

void digest_blocks(std::uint32_t (&state)[4], const std::uint8_t* block,
                   std::size_t blocks) {
  std::uint32_t now[4];
  std::ranges::copy(state, now);
  for (; blocks > 0; --blocks, block += kBlock) {
    run_steps(now, block, std::make_index_sequence<64>());
    for (int i = 0; i < 4; ++i) now[i] = state[i] += now[i];
  }
}

}  // namespace

void md5_initialise(Md5* md5) {
  *md5 = {{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, 0, {}};
}

void md5_update(Md5* md5, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  const std::size_t used = md5->length % kBlock;
  md5->length += size;
  if (used > 0) {
    const std::size_t taken = std::min(size, kBlock - used);
    std::copy_n(bytes, taken, md5->pending + used);
    if (used + taken < kBlock) return;
    digest_blocks(md5->state, md5->pending, 1);
    bytes += taken;
    size -= taken;
  }
  digest_blocks(md5->state, bytes, size / kBlock);
  std::copy_n(bytes + size / kBlock * kBlock, size % kBlock, md5->pending);
}

// The padding of RFC 1321, section 3.1, is one bit, then zeros up to the length
// in bits, which ends a block.
void md5_finish(Md5* md5, std::uint8_t (&digest)[kMd5Size]) {
  const ClearsTraces clears_traces;
  constexpr std::uint8_t kPadding[kBlock] = {0x80};
  std::uint8_t bits[kLengthSize];
  store_little_endian(md5->length * 8, bits);
  const std::size_t padding =
      (2 * kBlock - kLengthSize - 1 - md5->length % kBlock) % kBlock + 1;
  md5_update(md5, kPadding, padding);
  md5_update(md5, bits, sizeof bits);
  for (std::size_t i = 0; i < 4; ++i) {
    store_little_endian(md5->state[i], digest + 4 * i);
  }
  wipe_memory(md5, sizeof *md5);
}

}  // namespace velprobe
