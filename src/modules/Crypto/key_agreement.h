// Diffie-Hellman group parameters and key pairs, in the form that the agent
// protocol has always used. Kept for compatibility: the exponents are short and
// received groups are not validated. Not advised for new designs.
//
// Times and memory accesses of dh_generate_key, and of bn_power_mod for the
// shared secret, depend on the private number only by its top bit and by the
// leading zero limbs of a result. dh_generate_parameters shows its secrets by
// the length of its search; its results are public.
#ifndef VELPROBE_MODULES_CRYPTO_KEY_AGREEMENT_H_
#define VELPROBE_MODULES_CRYPTO_KEY_AGREEMENT_H_

#include <cstdint>

#include "bignum.h"
#include "random.h"

#pragma GCC visibility push(default)
namespace velprobe {

// dh_generate_parameters makes a prime modulus of the given number of bits and
// a generator. modulus and generator are null on failure: fewer than 3 bits, or
// no memory. Below about 32 bits there may be no fitting pair of primes, and
// the search goes on for ever.
void dh_generate_parameters(std::uint32_t bits, BigNumPtr& modulus,
                            BigNumPtr& generator, ByteSource source);

// dh_generate_key makes one side's key pair. The private exponent is as long as
// the generator in limbs. Private numbers whose public value is weak are drawn
// again. Failures, with what was made until then left in the outputs:
// "Error getting a random number for the key exchange",
// "Error calculating public part of shared secret key" (also, with both outputs
// null, after 128 draws that were all weak),
// "Error allocating primary memory for key check",
// "Error allocating secondary memory for key check".
ErrorText dh_generate_key(BigNumPtr& public_out, BigNumPtr& private_out,
                          const BigNum* modulus, const BigNum* generator,
                          ByteSource source);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_KEY_AGREEMENT_H_
