#include "bignum.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "../../util/byte_order.h"
#include "base_bignum_c.h"
#include "constant_time.h"
#include "crypto_assert.h"
#include "wipe.h"

namespace velprobe {
namespace {

constexpr const char* kSource = "modules/Crypto/c/bignum";
constexpr std::uint64_t kLimbBytes = 4;
constexpr std::uint64_t kFewestLimbs = 16;

// new_limbs gives size zero limbs, or null.
std::uint32_t* new_limbs(std::uint64_t size) {
  if (size > SIZE_MAX / kLimbBytes) return nullptr;
  return static_cast<std::uint32_t*>(
      std::calloc(static_cast<std::size_t>(size), kLimbBytes));
}

// new_number makes a zero with a capacity of size limbs.
BigNumPtr new_number(std::uint64_t size) {
  auto* data = new_limbs(size);
  if (data == nullptr) return nullptr;
  auto* num = static_cast<BigNum*>(std::malloc(sizeof(BigNum)));
  if (num == nullptr) {
    std::free(data);
    return nullptr;
  }
  *num = {data, 0, size};
  return BigNumPtr(num);
}

// wipe_limbs leaves nothing of a number in memory that is about to be released.
// The limbs beyond len are zero already: touching them would only cost pages.
void wipe_limbs(BigNum* num) {
  if (num->data == nullptr) return;
  const auto used = static_cast<std::size_t>(std::min(num->len, num->size));
  wipe_memory(num->data, used * sizeof *num->data);
}

// clear_from zeroes the limbs in use from the given one on; those beyond are
// zero already.
void clear_from(BigNum* num, std::uint64_t first) {
  const std::uint64_t end = std::min(num->len, num->size);
  if (first < end) std::fill(num->data + first, num->data + end, 0u);
}

}  // namespace

void bn_free(BigNum* num) {
  if (num == nullptr) return;
  wipe_limbs(num);
  std::free(num->data);
  std::free(num);
}

BigNumPtr bn_new(std::uint32_t value, std::uint64_t min_limbs) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  if (min_limbs > kMost / 2) return nullptr;
  BigNumPtr num =
      new_number(std::max(min_limbs + min_limbs / 2 + 1, kFewestLimbs));
  if (num == nullptr) return nullptr;
  if (reinterpret_cast<std::uintptr_t>(num->data) % kLimbBytes != 0) {
    std::fputs("Bad alignment!\n", stderr);
  }
  num->data[0] = value;
  num->len = 1;
  bn_normalize(num.get());
  return num;
}

BigNumPtr bn_from_word(std::uint32_t value) {
  return bn_new(value, 16);
}

BigNumPtr bn_copy(const BigNum* src, std::uint64_t min_limbs) {
  BigNumPtr num = new_number(std::max({src->len, kFewestLimbs, min_limbs}));
  if (num == nullptr) return nullptr;
  std::copy(src->data, src->data + src->len, num->data);
  num->len = src->len;
  return num;
}

BigNumPtr bn_dup(const BigNum* src) {
  return bn_copy(src, 0);
}

void bn_normalize(BigNum* num) {
  VELPROBE_ASSERT(kSource, num->len <= num->size);
  num->len = base_significant_limbs(num->data, num->len);
}

ErrorText bn_set_data(BigNum* num, const std::uint8_t* bytes, std::uint64_t n) {
  const std::uint64_t whole = n / kLimbBytes;
  const std::uint64_t rest = n % kLimbBytes;
  const std::uint64_t needed = whole + (rest != 0 ? 1 : 0);
  if (num->size < needed) {
    auto* data = new_limbs(needed);
    if (data == nullptr) return "Unable to allocate space for new data";
    wipe_limbs(num);
    std::free(num->data);
    *num = {data, 0, needed};
  }
  clear_from(num, needed);
  for (std::uint64_t i = 0; i < whole; ++i) {
    num->data[i] = load_big_endian(bytes + (n - (i + 1) * kLimbBytes));
  }
  if (rest != 0) {
    std::uint32_t top = 0;
    for (std::uint64_t i = 0; i < rest; ++i) top = top << 8 | bytes[i];
    num->data[whole] = top;
  }
  num->len = needed;
  bn_normalize(num);
  return {};
}

ErrorText bn_get_data(const BigNum* num, std::uint8_t* buffer,
                      std::uint64_t& length) {
  if (length < kLimbBytes * num->len) {
    length = kLimbBytes * num->len;
    return "Buffer given to bn_get_data is too small";
  }
  const std::uint64_t limbs = base_significant_limbs(num->data, num->len);
  length = 0;
  if (limbs == 0) return {};

  const std::uint32_t top = num->data[limbs - 1];
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (revealed(top >> shift != 0)) {
      buffer[length++] = static_cast<std::uint8_t>(top >> shift);
    }
  }
  for (std::uint64_t i = limbs - 1; i > 0; --i, length += kLimbBytes) {
    store_big_endian(num->data[i - 1], buffer + length);
  }
  return {};
}

std::uint32_t bn_top_bit(const BigNum* num) {
  return static_cast<std::uint32_t>(base_top_bit(num->data, num->len));
}

bool bn_less(const BigNum* a, const BigNum* b) {
  return base_compare(a->data, a->len, b->data, b->len) < 0;
}

bool bn_less_equal(const BigNum* a, const BigNum* b) {
  return base_compare(a->data, a->len, b->data, b->len) <= 0;
}

bool bn_equal(const BigNum* a, const BigNum* b) {
  return base_compare(a->data, a->len, b->data, b->len) == 0;
}

bool bn_equal_word(const BigNum* a, std::uint32_t w) {
  return a->len == 0 ? w == 0 : a->len == 1 && a->data[0] == w;
}

bool bn_less_word(const BigNum* a, std::uint32_t w) {
  return a->len == 0 ? w > 0 : a->len == 1 && a->data[0] < w;
}

bool bn_at_most_word(const BigNum* a, std::uint32_t w) {
  return a->len == 0 || (a->len == 1 && a->data[0] <= w);
}

bool bn_greater_word(const BigNum* a, std::uint32_t w) {
  return !bn_at_most_word(a, w);
}

}  // namespace velprobe
