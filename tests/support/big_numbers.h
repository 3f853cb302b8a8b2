// Big numbers in tests: to and from hexadecimal digits.
#ifndef VELPROBE_TESTS_BIG_NUMBERS_H_
#define VELPROBE_TESTS_BIG_NUMBERS_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "bytes.h"
#include "modules/Crypto/bignum.h"

namespace velprobe {

inline ErrorText set_bytes(BigNum* num, const std::string& bytes) {
  return bn_set_data(num, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                     bytes.size());
}

inline BigNumPtr number(const std::string& hex) {
  BigNumPtr num = bn_new(0, 0);
  EXPECT_FALSE(
      set_bytes(num.get(), bytes_of((hex.size() % 2 != 0 ? "0" : "") + hex)));
  return num;
}

// digits_of gives the digits without zeros in front, or "null" for no number.
inline std::string digits_of(const BigNum* num) {
  if (num == nullptr) return "null";
  std::string hex;
  char limb[9];
  for (std::uint64_t i = num->len; i > 0; --i) {
    std::snprintf(limb, sizeof limb, hex.empty() ? "%x" : "%08x",
                  num->data[i - 1]);
    hex += limb;
  }
  return hex.empty() ? "0" : hex;
}

inline std::string digits_of(const BigNumPtr& num) {
  return digits_of(num.get());
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_BIG_NUMBERS_H_
