// How a big number is held: limbs of 32 bits, the least significant first.
#ifndef VELPROBE_MODULES_CRYPTO_BIGNUM_VALUE_H_
#define VELPROBE_MODULES_CRYPTO_BIGNUM_VALUE_H_

#include <cstdint>

#pragma GCC visibility push(default)
namespace velprobe {

// BigNum is an unsigned integer of any length: len limbs in use of size
// allocated. The limbs from len up to size are zero; a normalised number has a
// top limb other than zero, or len 0 for the value zero.
struct BigNum {
  std::uint32_t* data;
  std::uint64_t len;
  std::uint64_t size;
};

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_BIGNUM_VALUE_H_
