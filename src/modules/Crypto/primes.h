// Probable primes: trial division, the Miller-Rabin test, and a search.
#ifndef VELPROBE_MODULES_CRYPTO_PRIMES_H_
#define VELPROBE_MODULES_CRYPTO_PRIMES_H_

#include "bignum.h"
#include "random.h"

#pragma GCC visibility push(default)
namespace velprobe {

// bn_is_small_prime_free divides n by the small primes. True when none of them
// divides n, n itself aside: n is then prime if it is below 8192 (or 0 or 1),
// and may be prime otherwise.
bool bn_is_small_prime_free(const BigNum* n);

// bn_miller_rabin runs one Miller-Rabin round with the given witness. False
// when n is composite, and also when memory runs out.
bool bn_miller_rabin(const BigNum* n, const BigNum* witness);

// bn_find_prime makes a probable prime p in [low, high] with p = 1 (mod step).
// Candidates come from source, the witnesses of the Miller-Rabin rounds always
// from urandom_bytes. Null when high is not above low, when step is zero, or
// when memory runs out. It searches on for as long as there is no such prime.
[[nodiscard]] BigNumPtr bn_find_prime(const BigNum* low, const BigNum* high,
                                      const BigNum* step, ByteSource source);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_PRIMES_H_
