// The modes of AES over whole blocks, written once for every path.
//
// A path's source file defines these in an anonymous namespace and then
// includes this file, which gives it make_path:
//
//   VELPROBE_AES_TARGET   attribute of functions that use special instructions
//   Block                 16 bytes as a value, with operator^
//   load, store           a Block from and to memory
//   block_of(high, low)   a Block from its halves as big-endian numbers
//   top_bit(block)        its first bit
//   append_bit(block, b)  block with its last bit changed by the first bit of b
//   RoundKey              a round key; RoundKey{} is zero
//   round_key_of(words)   from four words of a schedule
//   Lanes<kLanes>         that many blocks on their way through the rounds:
//                         made from blocks, blocks() back; add(key),
//                         full_round<kDecrypt>(key), final_round<kDecrypt>(key)
//
// Blocks that do not depend on each other go through the rounds eight at a
// time, which hides the latency of instructions.
#ifndef VELPROBE_MODULES_CRYPTO_AES_MODES_H_
#define VELPROBE_MODULES_CRYPTO_AES_MODES_H_

#include <array>

#include "../../util/byte_order.h"
#include "aes_block.h"
#include "wipe.h"

namespace velprobe {
namespace {

template <int kLanes>
using Blocks = std::array<Block, kLanes>;

// RoundKeys holds a schedule in the form of the path, once for each call. Its
// end clears the registers as well, where the last keys still are.
struct RoundKeys {
  VELPROBE_AES_TARGET explicit RoundKeys(const AesSchedule& schedule)
      : rounds(schedule.rounds) {
    for (int round = 0; round <= rounds; ++round) {
      keys[round] = round_key_of(schedule.words + 4 * round);
    }
  }
  RoundKeys(const RoundKeys&) = delete;
  RoundKeys& operator=(const RoundKeys&) = delete;
  ~RoundKeys() {
    wipe_memory(keys, static_cast<std::size_t>(rounds + 1) * sizeof *keys);
    clear_registers();
  }

  int rounds;
  RoundKey keys[kAesMaxRounds + 1];
};

// run_rounds is what AesRoundsFunction says, on several blocks side by side.
template <bool kDecrypt, int kLanes>
VELPROBE_AES_TARGET inline void run_rounds(const RoundKeys& keys,
                                           Blocks<kLanes>& blocks,
                                           int full_rounds, AesEnding ending) {
  Lanes<kLanes> lanes(blocks);
  int round = 0;
  lanes.add(keys.keys[round++]);
  while (round <= full_rounds) {
    lanes.template full_round<kDecrypt>(keys.keys[round++]);
  }
  if (ending == AesEnding::kKeyed) {
    lanes.template final_round<kDecrypt>(keys.keys[round]);
  } else if (ending == AesEnding::kKeyless) {
    lanes.template final_round<kDecrypt>(RoundKey{});
  }
  blocks = lanes.blocks();
}

template <bool kDecrypt, int kLanes>
VELPROBE_AES_TARGET inline void transform(const RoundKeys& keys,
                                          Blocks<kLanes>& blocks) {
  run_rounds<kDecrypt, kLanes>(keys, blocks, keys.rounds - 1,
                               AesEnding::kKeyed);
}

// Run is what is left of a call's input and output.
struct Run {
  const std::uint8_t* input;
  std::uint8_t* output;
  std::size_t blocks;

  void advance(std::size_t by) {
    input += by * kAesBlockSize;
    output += by * kAesBlockSize;
    blocks -= by;
  }
};

template <int kLanes>
VELPROBE_AES_TARGET inline Blocks<kLanes> load_blocks(const Run& run) {
  Blocks<kLanes> blocks;
  for (std::size_t i = 0; i < kLanes; ++i) {
    blocks[i] = load(run.input + kAesBlockSize * i);
  }
  return blocks;
}

template <int kLanes>
VELPROBE_AES_TARGET inline void store_blocks(const Blocks<kLanes>& blocks,
                                             const Run& run) {
  for (std::size_t i = 0; i < kLanes; ++i) {
    store(blocks[i], run.output + kAesBlockSize * i);
  }
}

template <bool kDecrypt, int kLanes>
VELPROBE_AES_TARGET inline void ecb_lanes(const RoundKeys& keys, Run& run) {
  for (; run.blocks >= kLanes; run.advance(kLanes)) {
    Wiped<Blocks<kLanes>> blocks{load_blocks<kLanes>(run)};
    transform<kDecrypt, kLanes>(keys, blocks.value);
    store_blocks<kLanes>(blocks.value, run);
  }
}

template <bool kDecrypt>
VELPROBE_AES_TARGET void ecb(const AesSchedule& schedule, std::uint8_t*,
                             const std::uint8_t* input, std::uint8_t* output,
                             std::size_t blocks) {
  const RoundKeys keys(schedule);
  Run run{input, output, blocks};
  ecb_lanes<kDecrypt, 8>(keys, run);
  ecb_lanes<kDecrypt, 4>(keys, run);
  ecb_lanes<kDecrypt, 1>(keys, run);
}

// Each block waits for the one before it.
VELPROBE_AES_TARGET inline void cbc_encrypt(const AesSchedule& schedule,
                                            std::uint8_t* vector,
                                            const std::uint8_t* input,
                                            std::uint8_t* output,
                                            std::size_t blocks) {
  const RoundKeys keys(schedule);
  Blocks<1> chain{load(vector)};
  for (Run run{input, output, blocks}; run.blocks > 0; run.advance(1)) {
    chain[0] = chain[0] ^ load(run.input);
    transform<false, 1>(keys, chain);
    store(chain[0], run.output);
  }
  store(chain[0], vector);
}

// The input is read for the last time before the first store, since the output
// may be the same memory.
template <int kLanes>
VELPROBE_AES_TARGET inline void cbc_decrypt_lanes(const RoundKeys& keys,
                                                  Block& chain, Run& run) {
  for (; run.blocks >= kLanes; run.advance(kLanes)) {
    const Blocks<kLanes> cipher = load_blocks<kLanes>(run);
    Wiped<Blocks<kLanes>> blocks{cipher};
    transform<true, kLanes>(keys, blocks.value);
    for (std::size_t i = 0; i < kLanes; ++i) {
      blocks.value[i] = blocks.value[i] ^ chain;
      chain = cipher[i];
    }
    store_blocks<kLanes>(blocks.value, run);
  }
}

VELPROBE_AES_TARGET inline void cbc_decrypt(const AesSchedule& schedule,
                                            std::uint8_t* vector,
                                            const std::uint8_t* input,
                                            std::uint8_t* output,
                                            std::size_t blocks) {
  const RoundKeys keys(schedule);
  Block chain = load(vector);
  Run run{input, output, blocks};
  cbc_decrypt_lanes<8>(keys, chain, run);
  cbc_decrypt_lanes<4>(keys, chain, run);
  cbc_decrypt_lanes<1>(keys, chain, run);
  store(chain, vector);
}

// ShiftVector is the vector of the 1-bit CFB mode as one 128-bit number.
struct ShiftVector {
  explicit ShiftVector(const std::uint8_t* bytes)
      : high(half(bytes)), low(half(bytes + 8)) {}

  static std::uint64_t half(const std::uint8_t* bytes) {
    return std::uint64_t{load_big_endian(bytes)} << 32 |
           load_big_endian(bytes + 4);
  }

  void shift_in(std::uint64_t bit) {
    high = high << 1 | low >> 63;
    low = low << 1 | bit;
  }
  VELPROBE_AES_TARGET Block block() const { return block_of(high, low); }

  std::uint64_t high;
  std::uint64_t low;
};

// The 1-bit CFB mode of SP 800-38A, section 6.3. Every bit waits for the one
// before it. The next vector is prepared with the plain bit, whose place in it
// the key stream's bit then changes without leaving the path's registers.
VELPROBE_AES_TARGET inline void cfb1_encrypt(const AesSchedule& schedule,
                                             std::uint8_t* vector,
                                             const std::uint8_t* input,
                                             std::uint8_t* output,
                                             std::size_t blocks) {
  const RoundKeys keys(schedule);
  ShiftVector chain(vector);
  Block next = chain.block();
  for (std::size_t i = 0; i < blocks * kAesBlockSize; ++i) {
    const unsigned in = input[i];
    for (int shift = 7; shift >= 0; --shift) {
      Blocks<1> stream{next};
      transform<false, 1>(keys, stream);
      chain.shift_in(in >> shift & 1);
      next = append_bit(chain.block(), stream[0]);
      chain.low ^= top_bit(stream[0]);
    }
    output[i] = static_cast<std::uint8_t>(chain.low);
  }
  store(chain.block(), vector);
}

// Decryption knows all its vectors beforehand, so a byte's eight bits go side
// by side.
VELPROBE_AES_TARGET inline void cfb1_decrypt(const AesSchedule& schedule,
                                             std::uint8_t* vector,
                                             const std::uint8_t* input,
                                             std::uint8_t* output,
                                             std::size_t blocks) {
  const RoundKeys keys(schedule);
  ShiftVector chain(vector);
  for (std::size_t i = 0; i < blocks * kAesBlockSize; ++i) {
    const unsigned in = input[i];
    Blocks<8> lanes;
    for (std::size_t bit = 0; bit < 8; ++bit) {
      lanes[bit] = chain.block();
      chain.shift_in(in >> (7 - bit) & 1);
    }
    transform<false, 8>(keys, lanes);
    unsigned stream = 0;
    for (const Block& lane : lanes) stream = stream << 1 | top_bit(lane);
    output[i] = static_cast<std::uint8_t>(in ^ stream);
  }
  store(chain.block(), vector);
}

template <bool kDecrypt>
VELPROBE_AES_TARGET void rounds(const AesSchedule& schedule,
                                std::uint8_t* block, int full_rounds,
                                AesEnding ending) {
  const RoundKeys keys(schedule);
  Wiped<Blocks<1>> state{Blocks<1>{load(block)}};
  run_rounds<kDecrypt, 1>(keys, state.value, full_rounds, ending);
  store(state.value[0], block);
}

constexpr AesPath make_path(const char* name,
                            std::uint32_t (*substitute_word)(std::uint32_t),
                            void (*inverse_mix_columns)(std::uint32_t*)) {
  return {name,
          {{ecb<false>, ecb<true>},
           {cbc_encrypt, cbc_decrypt},
           {cfb1_encrypt, cfb1_decrypt}},
          {rounds<false>, rounds<true>},
          substitute_word,
          inverse_mix_columns};
}

}  // namespace
}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_AES_MODES_H_
