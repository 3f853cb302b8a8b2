// Random bytes and random numbers.
#ifndef VELPROBE_MODULES_CRYPTO_RANDOM_H_
#define VELPROBE_MODULES_CRYPTO_RANDOM_H_

#include <cstddef>
#include <cstdint>

#include "bignum.h"

#pragma GCC visibility push(default)
namespace velprobe {

// A ByteSource fills count bytes of buffer, always all of them.
using ByteSource = void (*)(void* buffer, std::size_t count);

// urandom_bytes is the module's own source. It reads /dev/urandom through one
// handle for the whole process, which it closes after more than 10,485,759
// bytes and opens afresh at the next call. Not for use from two threads.
// Aborts when the device cannot be opened or read.
void urandom_bytes(void* buffer, std::size_t count);

// bn_fill_random sets num to nbytes random bytes, the first one lowest; the
// source is asked for them rounded up to whole limbs. -1 when num is too small
// for them. Nothing but leading zero limbs shows by time, here and in
// bn_poor_random, bn_fill_random_range and bn_random_range.
[[nodiscard]] int bn_fill_random(BigNum* num, std::uint64_t nbytes,
                                 ByteSource source);

// bn_poor_random makes a number of nbytes random bytes. On null it has written
// one of these to standard error:
// "Cannot create bignum in bn_poor_random (length = %lu)\n",
// "length = %lu, rc = %i\n".
[[nodiscard]] BigNumPtr bn_poor_random(std::uint64_t nbytes, ByteSource source);

// bn_fill_random_range sets num to low + (nbytes random bytes mod span).
// scratch is a work number. -1 when span is zero, or num or scratch is too
// small.
[[nodiscard]] int bn_fill_random_range(BigNum* num, const BigNum* low,
                                       const BigNum* span, BigNum* scratch,
                                       std::uint64_t nbytes, ByteSource source);

// bn_random_range makes a number r with low <= r < high from 4 * high->len
// random bytes. Null when high is not above low, or when memory runs out.
[[nodiscard]] BigNumPtr bn_random_range(const BigNum* low, const BigNum* high,
                                        ByteSource source);

// bn_fill_random_below sets num to a random number with 0 < num < bound. Each
// draw takes bound->len / 8 + 1 bytes but never more than 9, so numbers of more
// than 72 bits never come out, and is repeated until it fits. -1 when no number
// fits, or when num is too small.
[[nodiscard]] int bn_fill_random_below(BigNum* num, const BigNum* bound,
                                       ByteSource source);

// bn_random_below makes a number by the rule of bn_fill_random_below.
[[nodiscard]] BigNumPtr bn_random_below(const BigNum* bound, ByteSource source);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_RANDOM_H_
