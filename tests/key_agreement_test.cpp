#include "modules/Crypto/c/key_agreement.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "big_numbers.h"
#include "modules/Crypto/c/primes.h"
#include "modules/Crypto/c/random.h"

namespace velprobe {
namespace {

using Limbs = std::vector<std::uint32_t>;
using Sizes = std::vector<std::size_t>;

// The scripted source gives the script first and then a fixed pseudo-random
// sequence: the upper byte of x = 1664525 x + 1013904223 mod 2^32. It notes the
// size of each request.
struct {
  Limbs script;
  std::size_t position;
  std::uint32_t state;
  Sizes requests;
} g_source;

void start_script(const Limbs& script, std::uint32_t seed = 1) {
  g_source = {script, 0, seed, {}};
}

void scripted(void* buffer, std::size_t count) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  g_source.requests.push_back(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = g_source.position++;
    if (at < 4 * g_source.script.size()) {
      bytes[i] =
          static_cast<unsigned char>(g_source.script[at / 4] >> 8 * (at % 4));
      continue;
    }
    g_source.state = g_source.state * 1664525 + 1013904223;
    bytes[i] = static_cast<unsigned char>(g_source.state >> 24);
  }
}

int open_urandom_handles() {
  int count = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;  // the walk's own handle has gone by then
    count += std::filesystem::read_symlink(entry, ignored) == "/dev/urandom";
  }
  return count;
}

TEST(Random, UrandomIsReopenedAfterItsCount) {
  constexpr std::size_t kMost = 0x9FFFFF;
  std::string bytes(kMost + 1, '\0');
  // The count may stand anywhere at first; a full load closes the handle.
  urandom_bytes(bytes.data(), kMost + 1);
  EXPECT_EQ(open_urandom_handles(), 0);
  EXPECT_EQ(bytes.find(std::string(16, '\0')), bytes.npos) << "left unfilled";
  urandom_bytes(bytes.data(), kMost);
  EXPECT_EQ(open_urandom_handles(), 1) << "the limit itself is still allowed";
  urandom_bytes(bytes.data(), 1);
  EXPECT_EQ(open_urandom_handles(), 0);
}

TEST(Random, PoorRandomMasksWhatIsBeyondTheRequest) {
  struct {
    std::uint64_t nbytes;
    std::size_t request;
    const char* value;
  } const kRows[] = {
      {0, 0, "0"}, {3, 4, "20304"}, {4, 4, "81020304"}, {5, 8, "881020304"}};
  for (const auto& row : kRows) {
    start_script({0x81020304, 0x05060708});
    const BigNumPtr num = bn_poor_random(row.nbytes, scripted);
    EXPECT_EQ(hex_of(num), row.value);
    EXPECT_EQ(g_source.requests, Sizes{row.request});
  }
}

TEST(Random, BelowDrawsFewBytesUntilOneFits) {
  const auto power = [](std::uint64_t limbs) {
    return std::string("1").append(8 * limbs - 8, '0');  // of as many limbs
  };
  struct {
    std::string bound;
    Limbs script;
    Sizes requests;
    const char* value;
  } const kRows[] = {
      {"12c", {0xFFFFFF00, 0x12345607}, {4, 4}, "7"},
      {"7", {7, 8, 6}, {4, 4, 4}, "6"},
      {"1", {}, {}, "null"},
      {power(7), Limbs(1, ~0u), {4}, "ff"},
      {power(8), Limbs(1, ~0u), {4}, "ffff"},
      {power(200), Limbs(3, ~0u), {12}, "ffffffffffffffffff"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    EXPECT_EQ(hex_of(bn_random_below(number(row.bound).get(), scripted)),
              row.value);
    EXPECT_EQ(g_source.requests, row.requests) << row.bound;
  }
}

TEST(Random, RangeReducesIntoTheSpan) {
  start_script({0xFFFFFFFF, 2});
  const BigNumPtr low = number("100"), high = number("100000100");
  EXPECT_EQ(hex_of(bn_random_range(low.get(), high.get(), scripted)),
            "1000000ff");
  EXPECT_EQ(g_source.requests, Sizes{8});
  EXPECT_EQ(bn_random_range(low.get(), low.get(), scripted), nullptr);
}

// Also as a factor of a number whose only factor is itself.
TEST(Primes, TrialDivision) {
  const BigNumPtr mersenne = bn_power_of_two(521);
  bn_sub_word(mersenne.get(), 1);
  for (std::uint32_t n = 2; n < 10000; ++n) {
    std::uint32_t divisor = 2;
    while (divisor * divisor <= n && n % divisor != 0) ++divisor;
    const bool is_prime = divisor * divisor > n;
    const BigNumPtr number = bn_from_word(n);
    ASSERT_EQ(bn_is_small_prime_free(number.get()), is_prime) << n;
    const BigNumPtr product = bn_mul(mersenne.get(), number.get());
    ASSERT_EQ(bn_is_small_prime_free(product.get()), is_prime && n > 8191) << n;
  }
}

TEST(Primes, SearchFollowsTheDraws) {
  struct {
    const char *low, *high, *step;
    Limbs script;
    std::size_t draws;
    const char* prime;
  } const kRows[] = {
      // The first two draws are lowered to 99, below the range.
      {"65", "7f", "e", {0, 3, 12}, 3, "71"},
      // 115 and 121 are composite, 127 is the third candidate.
      {"6e", "80", "6", {5}, 1, "7f"},
      // From 115 the search leaves the range, and draws anew.
      {"64", "74", "6", {15, 3}, 2, "67"},
      // 104 is made odd first: 105 becomes 106, and 113 follows.
      {"64", "7f", "7", {4}, 1, "71"},
      // The range includes its upper end: 23 = 4 * 5 + 3 draws 21, then 23.
      {"14", "17", "2", {0}, 1, "17"},
      {"3", "3", "3", {}, 0, "null"},
      {"0", "3", "0", {}, 0, "null"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    EXPECT_EQ(
        hex_of(bn_find_prime(number(row.low).get(), number(row.high).get(),
                             number(row.step).get(), scripted)),
        row.prime);
    EXPECT_EQ(g_source.requests, Sizes(row.draws, 4)) << row.low;
  }
}

// Worked out with another program's integers from the same byte sequence.
TEST(KeyAgreement, ParametersFollowTheDraws) {
  struct {
    std::uint32_t bits, seed;
    const char *modulus, *generator;
  } const kRows[] = {
      {2, 1, "null", "null"},
      {64, 1, "fb3cd69814dae5a9", "2acb99d3129b1155"},
      {256, 4,
       "99e8ef7c66ae297f0ad5a4272692752ea3f37b0dc7e99e8a1d98ba1855808375",
       "2338898c153daaf8eeab4823b323271b75f2535b5d1274f2c17c443f1c661fb5"},
  };
  for (const auto& row : kRows) {
    start_script({}, row.seed);
    BigNumPtr modulus = bn_from_word(1), generator = bn_from_word(1);
    dh_generate_parameters(row.bits, modulus, generator, scripted);
    EXPECT_EQ(hex_of(modulus), row.modulus);
    EXPECT_EQ(hex_of(generator), row.generator);
  }
}

TEST(KeyAgreement, KeysFollowTheDraws) {
  constexpr const char* kNoPublicValue =
      "Error calculating public part of shared secret key";
  struct {
    const char *modulus, *generator;
    Limbs script;
    Sizes draws;
    const char *private_key, *public_key;
  } const kRows[] = {
      // 5^11 = 22 = -1 and 5^22 = 1 (mod 23) are weak.
      {"17", "5", {11, 22, 6}, {4, 4, 4}, "6", "8"},
      // Every power above the second is 0 modulo 8; 0 gives 1.
      {"8", "2", {9, 0, 1}, {4, 4, 4}, "1", "2"},
      // 6^2 = 6 (mod 10) is its own square, and 2^4 = 6.
      {"a", "2", {4, 3}, {4, 4}, "3", "8"},
      // The private number is as long as the generator, not as the modulus.
      {"100000000000000000f", "2", {5}, {4}, "5", "20"},
      {"17", "500000000", {5, 0}, {8}, "5", "f"},
      // No power can be computed: the private part stays.
      {"0", "5", {6}, {4}, "6", "null"},
      // Nothing but weak powers.
      {"17", "0", {}, {0}, "null", "null"},
      {"17", "16", {6}, {4}, "null", "null"},
      {"1", "5", {6}, {4}, "null", "null"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(&row - kRows);
    start_script(row.script);
    BigNumPtr public_key = bn_from_word(1), private_key;
    const ErrorText error =
        dh_generate_key(public_key, private_key, number(row.modulus).get(),
                        number(row.generator).get(), scripted);
    EXPECT_STREQ(error.c_str(), public_key ? nullptr : kNoPublicValue);
    EXPECT_EQ(hex_of(private_key), row.private_key);
    EXPECT_EQ(hex_of(public_key), row.public_key);
    EXPECT_EQ(g_source.requests, row.draws);
  }
}

}  // namespace
}  // namespace velprobe
