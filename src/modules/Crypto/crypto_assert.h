// Assertions of the cryptography module: active in every build type, because a
// broken invariant in arithmetic must never turn into a wrong key.
#ifndef VELPROBE_MODULES_CRYPTO_CRYPTO_ASSERT_H_
#define VELPROBE_MODULES_CRYPTO_CRYPTO_ASSERT_H_

namespace velprobe {

// crypto_assert_failed writes
//
//   Assertion "num->len <= num->size" failed: modules/Crypto/c/bignum:
//   bn_normalize
//
// as one line to standard error and aborts.
[[noreturn, gnu::cold]] void crypto_assert_failed(const char* expression,
                                                  const char* source,
                                                  const char* function);

}  // namespace velprobe

// VELPROBE_ASSERT ends the process when the expression is false. source is the
// source file's name within the repository, without its extension.
#define VELPROBE_ASSERT(source, expression) \
  ((expression)                             \
       ? (void)0                            \
       : ::velprobe::crypto_assert_failed(#expression, source, __func__))

#endif  // VELPROBE_MODULES_CRYPTO_CRYPTO_ASSERT_H_
