// The portable AES path: bit-sliced, since a table look-up at a secret place
// tells about the secret by the caches. Four blocks lie across eight words, one
// for each bit of a byte, and every step is the same few logical operations on
// those words, whatever the bytes are.
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "../../util/byte_order.h"
#include "aes_block.h"
#include "wipe.h"

#define VELPROBE_AES_TARGET

namespace velprobe {
namespace {

using Plane = std::uint64_t;

// Planes holds bit i of all bytes of four blocks in word i. Within a word the
// rows of the blocks are 16 bits each, row 0 on top; within a row there are
// four bits, one for each block, for each column, column 0 lowest.
using Planes = std::array<Plane, 8>;

constexpr std::size_t kSliced = 4;

// Block is a block as two numbers, its first byte on top.
struct Block {
  std::uint64_t high;
  std::uint64_t low;

  friend Block operator^(const Block& a, const Block& b) {
    return {a.high ^ b.high, a.low ^ b.low};
  }
};

Block load(const std::uint8_t* bytes) {
  const auto column = [bytes](int i) {
    return std::uint64_t{load_big_endian(bytes + 4 * i)};
  };
  return {column(0) << 32 | column(1), column(2) << 32 | column(3)};
}

void store(const Block& block, std::uint8_t* bytes) {
  store_big_endian(static_cast<std::uint32_t>(block.high >> 32), bytes);
  store_big_endian(static_cast<std::uint32_t>(block.high), bytes + 4);
  store_big_endian(static_cast<std::uint32_t>(block.low >> 32), bytes + 8);
  store_big_endian(static_cast<std::uint32_t>(block.low), bytes + 12);
}

Block block_of(std::uint64_t high, std::uint64_t low) {
  return {high, low};
}

unsigned top_bit(const Block& block) {
  return static_cast<unsigned>(block.high >> 63);
}

Block append_bit(const Block& block, const Block& stream) {
  return {block.high, block.low ^ stream.high >> 63};
}

// spread puts the four bytes of a column into the even bytes of a word; gather
// takes them out.
Plane spread(std::uint64_t column) {
  column = (column | column << 16) & 0x0000ffff0000ffff;
  return (column | column << 8) & 0x00ff00ff00ff00ff;
}

std::uint64_t gather(Plane word) {
  word &= 0x00ff00ff00ff00ff;
  word = (word | word >> 8) & 0x0000ffff0000ffff;
  return (word | word >> 16) & 0xffffffff;
}

// transpose swaps bit i of every byte of word j with bit j of the byte at the
// same place in word i. It is its own inverse.
void transpose(Planes& words) {
  constexpr Plane kLower[] = {0x5555555555555555, 0x3333333333333333,
                              0x0f0f0f0f0f0f0f0f};
  for (unsigned step = 0; step < 3; ++step) {
    const unsigned distance = 1U << step;
    for (unsigned i = 0; i < 8; ++i) {
      if ((i & distance) != 0) continue;
      Plane& a = words[i];
      Plane& b = words[i + distance];
      const Plane swapped = (a >> distance ^ b) & kLower[step];
      a ^= swapped << distance;
      b ^= swapped;
    }
  }
}

// Word i of what is transposed has the even columns of block i, word i + 4 the
// odd ones.
Planes slice(const Block* blocks, std::size_t count) {
  Planes planes{};
  for (std::size_t i = 0; i < count; ++i) {
    const auto [high, low] = blocks[i];
    planes[i] = spread(high >> 32) | spread(low >> 32) << 8;
    planes[i + kSliced] = spread(high & 0xffffffff) | spread(low & 0xffffffff)
                                                          << 8;
  }
  transpose(planes);
  return planes;
}

void unslice(Planes planes, Block* blocks, std::size_t count) {
  transpose(planes);
  for (std::size_t i = 0; i < count; ++i) {
    const Plane even = planes[i];
    const Plane odd = planes[i + kSliced];
    blocks[i] = {gather(even) << 32 | gather(odd),
                 gather(even >> 8) << 32 | gather(odd >> 8)};
  }
}

void add(Planes& planes, const Planes& key) {
  for (std::size_t i = 0; i < planes.size(); ++i) planes[i] ^= key[i];
}

// substitute is SubBytes (FIPS 197, section 5.1.1) by the circuit of Boyar and
// Peralta, "A small depth-16 circuit for the AES S-box" (2012), in the paper's
// names: x are the bits of a byte, highest first, y and t what leads to and
// through the inversion, z what leads out of it.
void substitute(Planes& p) {
  const Plane x0 = p[7], x1 = p[6], x2 = p[5], x3 = p[4];
  const Plane x4 = p[3], x5 = p[2], x6 = p[1], x7 = p[0];

  const Plane y14 = x3 ^ x5, y13 = x0 ^ x6, y9 = x0 ^ x3, y8 = x0 ^ x5;
  const Plane t0 = x1 ^ x2, y1 = t0 ^ x7, y4 = y1 ^ x3, y12 = y13 ^ y14;
  const Plane y2 = y1 ^ x0, y5 = y1 ^ x6, y3 = y5 ^ y8, t1 = x4 ^ y12;
  const Plane y15 = t1 ^ x5, y20 = t1 ^ x1, y6 = y15 ^ x7, y10 = y15 ^ t0;
  const Plane y11 = y20 ^ y9, y7 = x7 ^ y11, y17 = y10 ^ y11, y19 = y10 ^ y8;
  const Plane y16 = t0 ^ y11, y21 = y13 ^ y16, y18 = x0 ^ y16;

  const Plane t2 = y12 & y15, t4 = (y3 & y6) ^ t2, t6 = (y4 & x7) ^ t2;
  const Plane t7 = y13 & y16, t9 = (y5 & y1) ^ t7, t11 = (y2 & y7) ^ t7;
  const Plane t12 = y9 & y11, t14 = (y14 & y17) ^ t12, t16 = (y8 & y10) ^ t12;
  const Plane t21 = t4 ^ t14 ^ y20, t22 = t6 ^ t16 ^ y19;
  const Plane t23 = t9 ^ t14 ^ y21, t24 = t11 ^ t16 ^ y18;
  const Plane t25 = t21 ^ t22, t26 = t21 & t23, t27 = t24 ^ t26;
  const Plane t29 = (t25 & t27) ^ t22, t30 = t23 ^ t24, t31 = t22 ^ t26;
  const Plane t33 = (t31 & t30) ^ t24, t34 = t23 ^ t33, t35 = t27 ^ t33;
  const Plane t36 = t24 & t35, t37 = t36 ^ t34, t38 = t27 ^ t36;
  const Plane t40 = t25 ^ (t29 & t38), t41 = t40 ^ t37, t42 = t29 ^ t33;
  const Plane t43 = t29 ^ t40, t44 = t33 ^ t37, t45 = t42 ^ t41;

  const Plane z0 = t44 & y15, z1 = t37 & y6, z2 = t33 & x7, z3 = t43 & y16;
  const Plane z4 = t40 & y1, z5 = t29 & y7, z6 = t42 & y11, z7 = t45 & y17;
  const Plane z8 = t41 & y10, z9 = t44 & y12, z10 = t37 & y3, z11 = t33 & y4;
  const Plane z12 = t43 & y13, z13 = t40 & y5, z14 = t29 & y2, z15 = t42 & y9;
  const Plane z16 = t45 & y14, z17 = t41 & y8;

  const Plane t46 = z15 ^ z16, t48 = z5 ^ z13, t53 = z0 ^ z3;
  const Plane t57 = z2 ^ z12 ^ t53, t58 = z4 ^ t46, t59 = z3 ^ z6 ^ z7;
  const Plane t60 = t46 ^ t57, t62 = z7 ^ z8 ^ t58, t63 = z9 ^ z10 ^ t58;
  const Plane t64 = z4 ^ t59, t65 = z14 ^ t57 ^ t62, t66 = z1 ^ t63;
  const Plane s3 = t53 ^ t66;
  p = {~(t48 ^ t60), ~(z12 ^ t48 ^ t62),       z10 ^ z11 ^ t65, z2 ^ z5 ^ t66,
       s3,           ~(z16 ^ z17 ^ t64 ^ t65), ~(t64 ^ s3),     t59 ^ t63};
}

// invert_affine undoes the affine step of SubBytes.
void invert_affine(Planes& p) {
  const Planes b = p;
  for (std::size_t i = 0; i < 8; ++i) {
    p[i] = b[(i + 2) % 8] ^ b[(i + 5) % 8] ^ b[(i + 7) % 8];
  }
  p[0] = ~p[0];
  p[2] = ~p[2];
}

// SubBytes is an inversion and then an affine step, so the inversion alone is
// SubBytes with that step undone, and the inverse of SubBytes undoes it before.
void inverse_substitute(Planes& planes) {
  invert_affine(planes);
  substitute(planes);
  invert_affine(planes);
}

// shift_rows moves row r by kStep * r columns.
template <int kStep>
void shift_rows(Planes& planes) {
  for (Plane& plane : planes) {
    Plane shifted = 0;
    for (int row = 0; row < 4; ++row) {
      const int place = 48 - 16 * row;
      const auto columns = static_cast<std::uint16_t>(plane >> place);
      shifted |= Plane{std::rotr(columns, 4 * kStep * row)} << place;
    }
    plane = shifted;
  }
}

// doubled multiplies every byte by 2 in the field of FIPS 197, section 4.2.
Planes doubled(const Planes& p) {
  return {p[7], p[0] ^ p[7], p[1], p[2] ^ p[7], p[3] ^ p[7], p[4], p[5], p[6]};
}

// Turned by 16 bits, each row lies where the one above it was. With b the next
// row below a: 2a + 3b + c + d = 2(a + b) + b + (c + d).
void mix_columns(Planes& planes) {
  Planes next;
  Planes sums;
  for (std::size_t i = 0; i < 8; ++i) {
    next[i] = std::rotl(planes[i], 16);
    sums[i] = planes[i] ^ next[i];
  }
  planes = doubled(sums);
  for (std::size_t i = 0; i < 8; ++i) {
    planes[i] ^= next[i] ^ std::rotl(sums[i], 32);
  }
}

// The inverse matrix is the forward one times a matrix of 5, 0, 4, 0.
void inverse_mix_columns(Planes& planes) {
  Planes sums;
  for (std::size_t i = 0; i < 8; ++i) {
    sums[i] = planes[i] ^ std::rotl(planes[i], 32);
  }
  add(planes, doubled(doubled(sums)));
  mix_columns(planes);
}

using RoundKey = Planes;

RoundKey round_key_of(const std::uint32_t* words) {
  const Block block{std::uint64_t{words[0]} << 32 | words[1],
                    std::uint64_t{words[2]} << 32 | words[3]};
  const Block blocks[kSliced] = {block, block, block, block};
  return slice(blocks, kSliced);
}

template <bool kDecrypt>
void shifted_substitution(Planes& planes) {
  if constexpr (kDecrypt) {
    inverse_substitute(planes);
    shift_rows<-1>(planes);
  } else {
    substitute(planes);
    shift_rows<1>(planes);
  }
}

template <int kLanes>
class Lanes {
 public:
  explicit Lanes(const std::array<Block, kLanes>& blocks) {
    for (std::size_t i = 0; i < kGroups; ++i) {
      groups_.value[i] = slice(&blocks[i * kSliced], kPerGroup);
    }
  }

  std::array<Block, kLanes> blocks() const {
    std::array<Block, kLanes> blocks;
    for (std::size_t i = 0; i < kGroups; ++i) {
      unslice(groups_.value[i], &blocks[i * kSliced], kPerGroup);
    }
    return blocks;
  }

  void add(const RoundKey& key) {
    for (Planes& planes : groups_.value) velprobe::add(planes, key);
  }

  template <bool kDecrypt>
  void full_round(const RoundKey& key) {
    for (Planes& planes : groups_.value) {
      shifted_substitution<kDecrypt>(planes);
      kDecrypt ? inverse_mix_columns(planes) : mix_columns(planes);
      velprobe::add(planes, key);
    }
  }

  template <bool kDecrypt>
  void final_round(const RoundKey& key) {
    for (Planes& planes : groups_.value) {
      shifted_substitution<kDecrypt>(planes);
      velprobe::add(planes, key);
    }
  }

 private:
  static constexpr std::size_t kPerGroup = kLanes < kSliced ? kLanes : kSliced;
  static constexpr std::size_t kGroups = kLanes / kPerGroup;

  Wiped<std::array<Planes, kGroups>> groups_;
};

}  // namespace
}  // namespace velprobe

#include "aes_modes.h"

namespace velprobe {
namespace {

std::uint32_t substitute_word(std::uint32_t word) {
  Block block{word, 0};
  Planes planes = slice(&block, 1);
  substitute(planes);
  unslice(planes, &block, 1);
  return static_cast<std::uint32_t>(block.high);
}

void inverse_mix_columns(std::uint32_t* round_key) {
  Planes planes = round_key_of(round_key);
  inverse_mix_columns(planes);
  Block block;
  unslice(planes, &block, 1);
  round_key[0] = static_cast<std::uint32_t>(block.high >> 32);
  round_key[1] = static_cast<std::uint32_t>(block.high);
  round_key[2] = static_cast<std::uint32_t>(block.low >> 32);
  round_key[3] = static_cast<std::uint32_t>(block.low);
}

constexpr AesPath kPortable =
    make_path("portable", substitute_word, inverse_mix_columns);

}  // namespace

const AesPath& portable_aes_path() {
  return kPortable;
}

}  // namespace velprobe
