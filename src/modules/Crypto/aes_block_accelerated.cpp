// The AES path on the instructions of x86-64 processors. Blocks that do not
// depend on each other go through the rounds eight at a time, which hides the
// instructions' latency.
#include "aes_block.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include "wipe.h"

#define VELPROBE_AESNI [[gnu::target("aes,ssse3")]]

namespace velprobe {
namespace {

VELPROBE_AESNI inline __m128i load(const void* bytes) {
  return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

VELPROBE_AESNI inline void store(__m128i block, void* bytes) {
  _mm_storeu_si128(static_cast<__m128i*>(bytes), block);
}

// swap_words turns four words with the first byte on top into the byte order of
// the block, and back.
VELPROBE_AESNI inline __m128i swap_words(__m128i words) {
  return _mm_shuffle_epi8(words, _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4,
                                              5, 6, 7, 0, 1, 2, 3));
}

// RoundKeys holds a schedule in block order, once for each call.
struct RoundKeys {
  VELPROBE_AESNI explicit RoundKeys(const AesSchedule& schedule)
      : rounds(schedule.rounds) {
    for (int round = 0; round <= rounds; ++round) {
      keys[round] = swap_words(load(schedule.words + 4 * round));
    }
  }
  RoundKeys(const RoundKeys&) = delete;
  RoundKeys& operator=(const RoundKeys&) = delete;
  ~RoundKeys() {
    wipe_memory(keys, static_cast<std::size_t>(rounds + 1) * sizeof *keys);
  }

  int rounds;
  __m128i keys[kAesMaxRounds + 1];
};

template <bool kDecrypt>
VELPROBE_AESNI inline __m128i full_round(__m128i state, __m128i key) {
  if constexpr (kDecrypt) return _mm_aesdec_si128(state, key);
  return _mm_aesenc_si128(state, key);
}

template <bool kDecrypt>
VELPROBE_AESNI inline __m128i final_round(__m128i state, __m128i key) {
  if constexpr (kDecrypt) return _mm_aesdeclast_si128(state, key);
  return _mm_aesenclast_si128(state, key);
}

// transform takes kLanes independent blocks through all rounds side by side.
template <bool kDecrypt, int kLanes>
VELPROBE_AESNI inline void transform(const RoundKeys& round_keys,
                                     __m128i (&lanes)[kLanes]) {
  const __m128i* key = round_keys.keys;
  const __m128i* last = key + round_keys.rounds;
  for (__m128i& lane : lanes) lane = _mm_xor_si128(lane, *key);
  while (++key != last) {
    for (__m128i& lane : lanes) lane = full_round<kDecrypt>(lane, *key);
  }
  for (__m128i& lane : lanes) lane = final_round<kDecrypt>(lane, *last);
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

template <bool kDecrypt, int kLanes>
VELPROBE_AESNI inline void ecb_lanes(const RoundKeys& keys, Run& run) {
  for (; run.blocks >= kLanes; run.advance(kLanes)) {
    __m128i lanes[kLanes];
    for (int i = 0; i < kLanes; ++i) lanes[i] = load(run.input + 16 * i);
    transform<kDecrypt>(keys, lanes);
    for (int i = 0; i < kLanes; ++i) store(lanes[i], run.output + 16 * i);
  }
}

template <bool kDecrypt>
VELPROBE_AESNI void ecb(const AesSchedule& schedule, std::uint8_t*,
                        const std::uint8_t* input, std::uint8_t* output,
                        std::size_t blocks) {
  const RoundKeys keys(schedule);
  Run run{input, output, blocks};
  ecb_lanes<kDecrypt, 8>(keys, run);
  ecb_lanes<kDecrypt, 4>(keys, run);
  ecb_lanes<kDecrypt, 1>(keys, run);
}

// Each block waits for the one before it. The first round key joins the plain
// block ahead of time, so that the chain is only one addition longer than the
// rounds.
VELPROBE_AESNI void cbc_encrypt(const AesSchedule& schedule,
                                std::uint8_t* vector, const std::uint8_t* input,
                                std::uint8_t* output, std::size_t blocks) {
  const RoundKeys keys(schedule);
  __m128i chain = load(vector);
  for (Run run{input, output, blocks}; run.blocks > 0; run.advance(1)) {
    const __m128i plain = _mm_xor_si128(load(run.input), keys.keys[0]);
    chain = _mm_xor_si128(chain, plain);
    for (int round = 1; round < keys.rounds; ++round) {
      chain = _mm_aesenc_si128(chain, keys.keys[round]);
    }
    chain = _mm_aesenclast_si128(chain, keys.keys[keys.rounds]);
    store(chain, run.output);
  }
  store(chain, vector);
}

// The input is read for the last time before the first store, since the output
// may be the same memory.
template <int kLanes>
VELPROBE_AESNI inline void cbc_decrypt_lanes(const RoundKeys& keys,
                                             __m128i& chain, Run& run) {
  for (; run.blocks >= kLanes; run.advance(kLanes)) {
    __m128i lanes[kLanes];
    for (int i = 0; i < kLanes; ++i) lanes[i] = load(run.input + 16 * i);
    transform<true>(keys, lanes);
    lanes[0] = _mm_xor_si128(lanes[0], chain);
    for (int i = 1; i < kLanes; ++i) {
      lanes[i] = _mm_xor_si128(lanes[i], load(run.input + 16 * (i - 1)));
    }
    chain = load(run.input + 16 * (kLanes - 1));
    for (int i = 0; i < kLanes; ++i) store(lanes[i], run.output + 16 * i);
  }
}

VELPROBE_AESNI void cbc_decrypt(const AesSchedule& schedule,
                                std::uint8_t* vector, const std::uint8_t* input,
                                std::uint8_t* output, std::size_t blocks) {
  const RoundKeys keys(schedule);
  __m128i chain = load(vector);
  Run run{input, output, blocks};
  cbc_decrypt_lanes<8>(keys, chain, run);
  cbc_decrypt_lanes<4>(keys, chain, run);
  cbc_decrypt_lanes<1>(keys, chain, run);
  store(chain, vector);
}

// ShiftVector is the vector of the 1-bit CFB mode as one 128-bit number.
struct ShiftVector {
  std::uint64_t high;
  std::uint64_t low;

  ShiftVector shifted(std::uint64_t bit) const {
    return {high << 1 | low >> 63, low << 1 | bit};
  }

  VELPROBE_AESNI __m128i block() const {
    return _mm_set_epi64x(static_cast<long long>(__builtin_bswap64(low)),
                          static_cast<long long>(__builtin_bswap64(high)));
  }
};

VELPROBE_AESNI inline ShiftVector load_vector(const std::uint8_t* bytes) {
  std::uint64_t halves[2];
  store(load(bytes), halves);
  return {__builtin_bswap64(halves[0]), __builtin_bswap64(halves[1])};
}

// top_bit gives the first bit of a block.
VELPROBE_AESNI inline unsigned top_bit(__m128i block) {
  return static_cast<unsigned>(_mm_cvtsi128_si32(block)) >> 7 & 1;
}

// The 1-bit CFB mode of SP 800-38A, section 6.3. Every bit waits for the one
// before it. The next vector is prepared with the plain bit beside the rounds,
// and the key stream's bit joins it without leaving the vector registers.
VELPROBE_AESNI void cfb1_encrypt(const AesSchedule& schedule,
                                 std::uint8_t* vector,
                                 const std::uint8_t* input,
                                 std::uint8_t* output, std::size_t blocks) {
  const RoundKeys keys(schedule);
  const __m128i one = _mm_cvtsi32_si128(1);
  ShiftVector chain = load_vector(vector);
  __m128i next = chain.block();
  for (std::size_t i = 0; i < blocks * kAesBlockSize; ++i) {
    const unsigned in = input[i];
    for (int shift = 7; shift >= 0; --shift) {
      __m128i stream[1] = {next};
      transform<false>(keys, stream);
      chain = chain.shifted(in >> shift & 1);
      next = _mm_xor_si128(
          chain.block(),
          _mm_slli_si128(_mm_and_si128(_mm_srli_epi64(stream[0], 7), one), 15));
      chain.low ^= top_bit(stream[0]);
    }
    output[i] = static_cast<std::uint8_t>(chain.low);
  }
  store(chain.block(), vector);
}

// Decryption knows all its vectors beforehand, so a byte's eight bits go side
// by side.
VELPROBE_AESNI void cfb1_decrypt(const AesSchedule& schedule,
                                 std::uint8_t* vector,
                                 const std::uint8_t* input,
                                 std::uint8_t* output, std::size_t blocks) {
  const RoundKeys keys(schedule);
  ShiftVector chain = load_vector(vector);
  for (std::size_t i = 0; i < blocks * kAesBlockSize; ++i) {
    const unsigned in = input[i];
    __m128i lanes[8];
    for (int bit = 0; bit < 8; ++bit) {
      lanes[bit] = chain.block();
      chain = chain.shifted(in >> (7 - bit) & 1);
    }
    transform<false>(keys, lanes);
    unsigned stream = 0;
    for (__m128i lane : lanes) stream = stream << 1 | top_bit(lane);
    output[i] = static_cast<std::uint8_t>(in ^ stream);
  }
  store(chain.block(), vector);
}

template <bool kDecrypt>
VELPROBE_AESNI void rounds(const AesSchedule& schedule, std::uint8_t* block,
                           int full_rounds, AesEnding ending) {
  const RoundKeys keys(schedule);
  int round = 0;
  __m128i state = _mm_xor_si128(load(block), keys.keys[round++]);
  while (round <= full_rounds) {
    state = full_round<kDecrypt>(state, keys.keys[round++]);
  }
  if (ending == AesEnding::kKeyed) {
    state = final_round<kDecrypt>(state, keys.keys[round]);
  } else if (ending == AesEnding::kKeyless) {
    state = final_round<kDecrypt>(state, _mm_setzero_si128());
  }
  store(state, block);
}

VELPROBE_AESNI std::uint32_t substitute_word(std::uint32_t word) {
  const __m128i words = _mm_set1_epi32(static_cast<int>(word));
  return static_cast<std::uint32_t>(
      _mm_cvtsi128_si32(_mm_aeskeygenassist_si128(words, 0)));
}

VELPROBE_AESNI void inverse_mix_columns(std::uint32_t* round_key) {
  const __m128i mixed = _mm_aesimc_si128(swap_words(load(round_key)));
  store(swap_words(mixed), round_key);
}

constexpr AesPath kAccelerated = {
    "aesni",
    {{ecb<false>, ecb<true>},
     {cbc_encrypt, cbc_decrypt},
     {cfb1_encrypt, cfb1_decrypt}},
    {rounds<false>, rounds<true>},
    substitute_word,
    inverse_mix_columns,
};

}  // namespace

const AesPath* accelerated_aes_path() {
  const bool supported =
      __builtin_cpu_supports("aes") && __builtin_cpu_supports("ssse3");
  return supported ? &kAccelerated : nullptr;
}

}  // namespace velprobe

#else

namespace velprobe {

const AesPath* accelerated_aes_path() {
  return nullptr;
}

}  // namespace velprobe

#endif
