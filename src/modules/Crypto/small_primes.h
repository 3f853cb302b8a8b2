// The primes that a candidate is divided by before anything else.
#ifndef VELPROBE_MODULES_CRYPTO_SMALL_PRIMES_H_
#define VELPROBE_MODULES_CRYPTO_SMALL_PRIMES_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace velprobe {

inline constexpr std::uint32_t kSmallPrimeLimit = 8192;
inline constexpr std::size_t kNumSmallPrimes = 1028;

// kSmallPrimes are all primes below kSmallPrimeLimit, ended by a 0.
inline constexpr std::array<std::uint32_t, kNumSmallPrimes + 1> kSmallPrimes =
    [] {
      std::array<std::uint32_t, kNumSmallPrimes + 1> primes{};
      std::array<bool, kSmallPrimeLimit> composite{};
      std::size_t count = 0;
      for (std::uint32_t i = 2; i < kSmallPrimeLimit; ++i) {
        if (composite[i]) continue;
        primes[count++] = i;
        for (std::uint32_t j = i * i; j < kSmallPrimeLimit; j += i) {
          composite[j] = true;
        }
      }
      return primes;
    }();

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_SMALL_PRIMES_H_
