// The portable AES path: substitution, row shift and column mixing of a round
// in one table look-up a byte.
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "../../util/byte_order.h"
#include "aes_block.h"
#include "wipe.h"

namespace velprobe {
namespace {

// State is a block as four columns, the first byte of each on top.
using State = std::array<std::uint32_t, 4>;

// Direction holds what tells the cipher from its inverse.
struct Direction {
  std::array<std::uint8_t, 256> box;     // the byte substitution
  std::array<std::uint32_t, 256> mixed;  // its column mixing for a top byte
  std::size_t step;  // columns to the right from which each row's byte comes
};

// times multiplies in the field of FIPS 197, section 4.2.
constexpr unsigned times(unsigned a, unsigned b) {
  unsigned product = 0;
  for (; b != 0; b >>= 1) {
    if (b & 1) product ^= a;
    a = a << 1 ^ (a >> 7) * 0x11b;
  }
  return product;
}

// make_box computes SubBytes (FIPS 197, section 5.1.1). Inverses come from the
// powers of 3, which run through every value but 0.
constexpr std::array<std::uint8_t, 256> make_box() {
  std::array<unsigned, 256> power{};
  std::array<unsigned, 256> logarithm{};
  for (unsigned i = 0, value = 1; i < 255; ++i, value = times(value, 3)) {
    power[i] = value;
    logarithm[value] = i;
  }
  std::array<std::uint8_t, 256> box{};
  for (unsigned i = 0; i < 256; ++i) {
    const auto inverse = static_cast<std::uint8_t>(
        i == 0 ? 0 : power[(255 - logarithm[i]) % 255]);
    box[i] = static_cast<std::uint8_t>(
        inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
        std::rotl(inverse, 3) ^ std::rotl(inverse, 4) ^ 0x63);
  }
  return box;
}

constexpr std::array<std::uint8_t, 256> invert_box(
    const std::array<std::uint8_t, 256>& box) {
  std::array<std::uint8_t, 256> inverse{};
  for (unsigned i = 0; i < 256; ++i) {
    inverse[box[i]] = static_cast<std::uint8_t>(i);
  }
  return inverse;
}

// make_direction takes the four factors that column mixing applies to a
// column's top byte.
constexpr Direction make_direction(const std::array<std::uint8_t, 256>& box,
                                   const std::array<unsigned, 4>& factors,
                                   std::size_t step) {
  Direction direction{box, {}, step};
  for (unsigned i = 0; i < 256; ++i) {
    std::uint32_t column = 0;
    for (unsigned factor : factors) {
      column = column << 8 | times(box[i], factor);
    }
    direction.mixed[i] = column;
  }
  return direction;
}

constexpr Direction kForward = make_direction(make_box(), {2, 1, 1, 3}, 1);
constexpr Direction kInverse =
    make_direction(invert_box(make_box()), {14, 9, 13, 11}, 3);

template <int kRow>
constexpr std::size_t row_byte(std::uint32_t column) {
  return column >> (24 - 8 * kRow) & 0xff;
}

// mix_column is the column mixing of four bytes after d's substitution, one
// byte a row.
template <const Direction& d>
std::uint32_t mix_column(std::uint32_t row0, std::uint32_t row1,
                         std::uint32_t row2, std::uint32_t row3) {
  return d.mixed[row_byte<0>(row0)] ^ std::rotr(d.mixed[row_byte<1>(row1)], 8) ^
         std::rotr(d.mixed[row_byte<2>(row2)], 16) ^
         std::rotr(d.mixed[row_byte<3>(row3)], 24);
}

template <const Direction& d>
std::uint32_t substitute_column(std::uint32_t row0, std::uint32_t row1,
                                std::uint32_t row2, std::uint32_t row3) {
  return std::uint32_t{d.box[row_byte<0>(row0)]} << 24 |
         std::uint32_t{d.box[row_byte<1>(row1)]} << 16 |
         std::uint32_t{d.box[row_byte<2>(row2)]} << 8 |
         std::uint32_t{d.box[row_byte<3>(row3)]};
}

State operator^(const State& a, const State& b) {
  return {a[0] ^ b[0], a[1] ^ b[1], a[2] ^ b[2], a[3] ^ b[3]};
}

// each_column forms a new state from the row-shifted columns of the old one.
template <const Direction& d, class Column>
State each_column(const State& s, Column column) {
  State result;
  for (std::size_t i = 0; i < 4; ++i) {
    result[i] = column(s[i], s[(i + d.step) % 4], s[(i + 2 * d.step) % 4],
                       s[(i + 3 * d.step) % 4]);
  }
  return result;
}

State round_key(const AesSchedule& schedule, int round) {
  const std::uint32_t* words = schedule.words + 4 * round;
  return {words[0], words[1], words[2], words[3]};
}

template <const Direction& d>
State run_rounds(const AesSchedule& schedule, State state, int full_rounds,
                 AesEnding ending) {
  int round = 0;
  state = state ^ round_key(schedule, round++);
  while (round <= full_rounds) {
    state = each_column<d>(state, mix_column<d>) ^ round_key(schedule, round++);
  }
  if (ending == AesEnding::kNone) return state;
  state = each_column<d>(state, substitute_column<d>);
  return ending == AesEnding::kKeyed ? state ^ round_key(schedule, round)
                                     : state;
}

template <const Direction& d>
State transform(const AesSchedule& schedule, const State& state) {
  return run_rounds<d>(schedule, state, schedule.rounds - 1, AesEnding::kKeyed);
}

State load(const std::uint8_t* bytes) {
  State state;
  for (std::uint32_t& column : state) {
    column = load_big_endian(bytes);
    bytes += sizeof column;
  }
  return state;
}

void store(const State& state, std::uint8_t* bytes) {
  for (std::uint32_t column : state) {
    store_big_endian(column, bytes);
    bytes += sizeof column;
  }
}

template <const Direction& d>
void rounds(const AesSchedule& schedule, std::uint8_t* block, int full_rounds,
            AesEnding ending) {
  Wiped<State> state;
  state.value = run_rounds<d>(schedule, load(block), full_rounds, ending);
  store(state.value, block);
}

template <const Direction& d>
void ecb(const AesSchedule& schedule, std::uint8_t*, const std::uint8_t* input,
         std::uint8_t* output, std::size_t blocks) {
  Wiped<State> state;
  for (std::size_t end = blocks * kAesBlockSize, i = 0; i < end;
       i += kAesBlockSize) {
    state.value = transform<d>(schedule, load(input + i));
    store(state.value, output + i);
  }
}

void cbc_encrypt(const AesSchedule& schedule, std::uint8_t* vector,
                 const std::uint8_t* input, std::uint8_t* output,
                 std::size_t blocks) {
  State chain = load(vector);
  for (std::size_t end = blocks * kAesBlockSize, i = 0; i < end;
       i += kAesBlockSize) {
    chain = transform<kForward>(schedule, chain ^ load(input + i));
    store(chain, output + i);
  }
  store(chain, vector);
}

void cbc_decrypt(const AesSchedule& schedule, std::uint8_t* vector,
                 const std::uint8_t* input, std::uint8_t* output,
                 std::size_t blocks) {
  State chain = load(vector);
  Wiped<State> plain;
  for (std::size_t end = blocks * kAesBlockSize, i = 0; i < end;
       i += kAesBlockSize) {
    const State cipher = load(input + i);
    plain.value = transform<kInverse>(schedule, cipher) ^ chain;
    store(plain.value, output + i);
    chain = cipher;
  }
  store(chain, vector);
}

State shift_in(const State& vector, unsigned bit) {
  return {vector[0] << 1 | vector[1] >> 31, vector[1] << 1 | vector[2] >> 31,
          vector[2] << 1 | vector[3] >> 31, vector[3] << 1 | bit};
}

// The 1-bit CFB mode of SP 800-38A, section 6.3.
template <bool kDecrypt>
void cfb1(const AesSchedule& schedule, std::uint8_t* vector,
          const std::uint8_t* input, std::uint8_t* output, std::size_t blocks) {
  State chain = load(vector);
  for (std::size_t i = 0; i < blocks * kAesBlockSize; ++i) {
    const unsigned in = input[i];
    unsigned out = 0;
    for (int shift = 7; shift >= 0; --shift) {
      const unsigned in_bit = in >> shift & 1;
      const unsigned out_bit =
          in_bit ^ transform<kForward>(schedule, chain)[0] >> 31;
      chain = shift_in(chain, kDecrypt ? in_bit : out_bit);
      out = out << 1 | out_bit;
    }
    output[i] = static_cast<std::uint8_t>(out);
  }
  store(chain, vector);
}

std::uint32_t substitute_word(std::uint32_t word) {
  return substitute_column<kForward>(word, word, word, word);
}

// The inverse table mixes what it has substituted, so the bytes go through the
// forward substitution first.
void inverse_mix_columns(std::uint32_t* round_key) {
  for (int i = 0; i < 4; ++i) {
    const std::uint32_t word = substitute_word(round_key[i]);
    round_key[i] = mix_column<kInverse>(word, word, word, word);
  }
}

constexpr AesPath kPortable = {
    "portable",
    {{ecb<kForward>, ecb<kInverse>},
     {cbc_encrypt, cbc_decrypt},
     {cfb1<false>, cfb1<true>}},
    {rounds<kForward>, rounds<kInverse>},
    substitute_word,
    inverse_mix_columns,
};

}  // namespace

const AesPath& portable_aes_path() {
  return kPortable;
}

}  // namespace velprobe
