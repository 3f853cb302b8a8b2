#include "random.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../../util/byte_order.h"
#include "../../util/owners.h"
#include "wipe.h"

namespace velprobe {
namespace {

constexpr std::uint32_t kMostBytesPerHandle = 0x9FFFFF;
constexpr std::uint64_t kLimbBytes = 4;
constexpr std::uint64_t kMostBytesBelow = 9;

struct Urandom {
  FilePtr handle;
  std::uint32_t bytes_read = 0;
};

Urandom& urandom() {
  static Urandom state;
  return state;
}

void open_urandom(Urandom& state) {
  state.handle.reset(std::fopen("/dev/urandom", "re"));
  if (state.handle == nullptr) std::abort();
  // Without a buffer no random byte stays behind in memory that nobody wipes.
  std::setvbuf(state.handle.get(), nullptr, _IONBF, 0);
  state.bytes_read = 0;
}

}  // namespace

void urandom_bytes(void* buffer, std::size_t count) {
  Urandom& state = urandom();
  if (state.handle == nullptr) open_urandom(state);

  auto* bytes = static_cast<unsigned char*>(buffer);
  while (count > 0) {
    const std::size_t got = std::fread(bytes, 1, count, state.handle.get());
    if (got < 1) std::abort();
    state.bytes_read += static_cast<std::uint32_t>(got);
    bytes += got;
    count -= got;
  }
  if (state.bytes_read > kMostBytesPerHandle) state.handle.reset();
}

int bn_fill_random(BigNum* num, std::uint64_t nbytes, ByteSource source) {
  if (kLimbBytes * num->size < nbytes) return -1;
  const std::uint64_t limbs = (nbytes + kLimbBytes - 1) / kLimbBytes;
  std::fill(num->data, num->data + num->size, 0u);
  source(num->data, static_cast<std::size_t>(limbs * kLimbBytes));
  // The first byte is the lowest, so that a draw is the same number everywhere.
  for (std::uint64_t i = 0; i < limbs; ++i) {
    std::uint8_t bytes[kLimbBytes];
    std::memcpy(bytes, num->data + i, sizeof bytes);
    num->data[i] = load_little_endian(bytes);
  }
  if (const std::uint64_t rest = nbytes % kLimbBytes; rest != 0) {
    num->data[limbs - 1] &= (std::uint32_t{1} << 8 * rest) - 1;
  }
  num->len = limbs;
  bn_normalize(num);
  return 0;
}

BigNumPtr bn_poor_random(std::uint64_t nbytes, ByteSource source) {
  const ClearsTraces clears_traces;
  BigNumPtr num = bn_new(0, nbytes + 1);
  if (num == nullptr) {
    std::fprintf(stderr,
                 "Cannot create bignum in bn_poor_random (length = %lu)\n",
                 static_cast<unsigned long>(nbytes));
    return nullptr;
  }
  if (const int rc = bn_fill_random(num.get(), nbytes, source); rc != 0) {
    std::fprintf(stderr, "length = %lu, rc = %i\n",
                 static_cast<unsigned long>(nbytes), rc);
    return nullptr;
  }
  return num;
}

int bn_fill_random_range(BigNum* num, const BigNum* low, const BigNum* span,
                         BigNum* scratch, std::uint64_t nbytes,
                         ByteSource source) {
  if (bn_fill_random(num, nbytes, source) != 0) return -1;
  if (bn_mod(num, span, scratch) != 0) return -1;
  return bn_add(num, low);
}

BigNumPtr bn_random_range(const BigNum* low, const BigNum* high,
                          ByteSource source) {
  const ClearsTraces clears_traces;
  if (bn_less_equal(high, low)) return nullptr;
  const BigNumPtr span = bn_dup(high);
  const BigNumPtr scratch = bn_new(0, high->len);
  BigNumPtr num = bn_new(0, high->len + 1);
  if (span == nullptr || scratch == nullptr || num == nullptr) return nullptr;
  bn_sub(span.get(), low);
  if (bn_fill_random_range(num.get(), low, span.get(), scratch.get(),
                           kLimbBytes * high->len, source) != 0) {
    return nullptr;
  }
  return num;
}

int bn_fill_random_below(BigNum* num, const BigNum* bound, ByteSource source) {
  if (bn_at_most_word(bound, 1)) return -1;
  const std::uint64_t nbytes = std::min(bound->len / 8 + 1, kMostBytesBelow);
  do {
    if (bn_fill_random(num, nbytes, source) != 0) return -1;
  } while (bn_equal_word(num, 0) || !bn_less(num, bound));
  return 0;
}

BigNumPtr bn_random_below(const BigNum* bound, ByteSource source) {
  BigNumPtr num = bn_new(0, kMostBytesBelow);
  if (num == nullptr || bn_fill_random_below(num.get(), bound, source) != 0) {
    return nullptr;
  }
  return num;
}

}  // namespace velprobe
