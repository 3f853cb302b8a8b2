// Choices without branches, and the marks where a secret becomes public.
//
// Code that handles secrets takes no branch and forms no address by them. The
// exceptions go through revealed or reveal: what passes there is known to an
// observer. scripts/check_constant_time.sh builds the module with
// VELPROBE_PROVE_CONSTANT_TIME, where these calls tell memcheck that the value
// may be looked at; any other look at a secret fails that check.
#ifndef VELPROBE_MODULES_CRYPTO_CONSTANT_TIME_H_
#define VELPROBE_MODULES_CRYPTO_CONSTANT_TIME_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

#ifdef VELPROBE_PROVE_CONSTANT_TIME
#include <valgrind/memcheck.h>
#endif

namespace velprobe {

// reveal marks size bytes as public from here on.
inline void reveal([[maybe_unused]] const void* memory,
                   [[maybe_unused]] std::size_t size) {
#ifdef VELPROBE_PROVE_CONSTANT_TIME
  (void)VALGRIND_MAKE_MEM_DEFINED(memory, size);
#endif
}

template <class Value>
Value revealed(Value value) {
  reveal(&value, sizeof value);
  return value;
}

// mask_of gives all ones for 1 or true and zero for 0. The compiler knows
// nothing about the result, so it cannot turn a choice by it into a branch.
constexpr std::uint64_t mask_of(std::uint64_t bit) {
  std::uint64_t mask = 0 - bit;
  if (!std::is_constant_evaluated()) __asm__("" : "+r"(mask));
  return mask;
}

// chosen gives yes where the mask is all ones and no where it is zero.
template <class Word>
constexpr Word chosen(std::uint64_t mask, Word yes, Word no) {
  return static_cast<Word>((yes & static_cast<Word>(mask)) |
                           (no & static_cast<Word>(~mask)));
}

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_CONSTANT_TIME_H_
