#include "primes.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "base_bignum_c.h"
#include "limb_pairs.h"
#include "small_primes.h"

namespace velprobe {
namespace {

// PrimeGroup is a run of small primes whose product fits into 64 bits: one
// reduction of a long number by the product serves all of them.
struct PrimeGroup {
  std::uint64_t divisor;  // the product, shifted so that the top bit is set
  std::uint64_t reciprocal;
  std::uint32_t begin;
  std::uint32_t end;
};

constexpr std::uint32_t group_end(std::uint32_t begin) {
  std::uint64_t product = 1;
  std::uint32_t end = begin;
  while (end < kNumSmallPrimes &&
         product <= ~std::uint64_t{0} / kSmallPrimes[end]) {
    product *= kSmallPrimes[end++];
  }
  return end;
}

constexpr std::size_t kNumGroups = [] {
  std::size_t count = 0;
  for (std::uint32_t at = 0; at < kNumSmallPrimes; at = group_end(at)) ++count;
  return count;
}();

constexpr std::array<PrimeGroup, kNumGroups> kGroups = [] {
  std::array<PrimeGroup, kNumGroups> groups{};
  std::uint32_t begin = 0;
  for (PrimeGroup& group : groups) {
    group.begin = begin;
    group.end = group_end(begin);
    group.divisor = 1;
    for (std::uint32_t i = begin; i < group.end; ++i) {
      group.divisor *= kSmallPrimes[i];
    }
    group.divisor <<= std::countl_zero(group.divisor);
    group.reciprocal = reciprocal_of(group.divisor);
    begin = group.end;
  }
  return groups;
}();

std::uint64_t remainder_of(const BigNum* n, const PrimeGroup& group) {
  std::uint64_t remainder = n->len % 2 != 0 ? n->data[n->len - 1] : 0;
  for (std::uint64_t i = n->len / 2; i > 0; --i) {
    divide_pair(remainder, load_pair(n->data + 2 * (i - 1)), group.divisor,
                group.reciprocal, remainder);
  }
  return remainder;
}

bool is_small_number_prime(std::uint32_t n) {
  for (const std::uint32_t prime : kSmallPrimes) {
    if (prime == 0 || prime >= n) return true;
    if (n % prime == 0) return false;
  }
  return true;
}

enum class Verdict { kComposite, kPassed, kFailed };

// MillerRabin holds the work numbers of rounds on numbers of up to a given
// length, so that a search allocates once.
class MillerRabin {
 public:
  // prepare is to be called once; false when memory runs out.
  bool prepare(std::uint64_t limbs);
  Verdict round(const BigNum* n, const BigNum* witness);

 private:
  Verdict square_until_passed(const BigNum* n, std::uint64_t squarings);

  BigNumPtr n_minus_1_, odd_, x_, square_, scratch_;
};

bool MillerRabin::prepare(std::uint64_t limbs) {
  n_minus_1_ = bn_new(0, limbs);
  odd_ = bn_new(0, limbs);
  x_ = bn_new(0, 2 * limbs);
  scratch_ = bn_new(0, 2 * limbs + 1);
  if (scratch_ == nullptr) return false;
  square_ = bn_new(0, scratch_->size);
  return n_minus_1_ != nullptr && odd_ != nullptr && x_ != nullptr &&
         square_ != nullptr;
}

Verdict MillerRabin::round(const BigNum* n, const BigNum* witness) {
  if (bn_equal_word(n, 2)) return Verdict::kPassed;
  if (n->len == 0 || n->data[0] % 2 == 0) return Verdict::kComposite;

  // n - 1 = odd * 2^twos.
  if (bn_copy_into(n_minus_1_.get(), n) != 0) return Verdict::kFailed;
  bn_sub_word(n_minus_1_.get(), 1);
  if (bn_copy_into(odd_.get(), n_minus_1_.get()) != 0) return Verdict::kFailed;
  const std::uint64_t twos = base_trailing_zeros(odd_->data, odd_->len);
  bn_shift_right(odd_.get(), twos);

  if (base_power_modulo(x_.get(), witness, odd_.get(), n, square_.get(),
                        scratch_.get()) != 0) {
    return Verdict::kFailed;
  }
  if (bn_equal_word(x_.get(), 1) || bn_equal(x_.get(), n_minus_1_.get())) {
    return Verdict::kPassed;
  }
  return square_until_passed(n, twos > 0 ? twos - 1 : 0);
}

Verdict MillerRabin::square_until_passed(const BigNum* n,
                                         std::uint64_t squarings) {
  for (; squarings > 0; --squarings) {
    base_set_square(square_.get(), x_.get());
    if (bn_mod(square_.get(), n, scratch_.get()) != 0 ||
        bn_copy_into(x_.get(), square_.get()) != 0) {
      return Verdict::kFailed;
    }
    if (bn_equal_word(x_.get(), 1)) return Verdict::kComposite;
    if (bn_equal(x_.get(), n_minus_1_.get())) return Verdict::kPassed;
  }
  return Verdict::kComposite;
}

int rounds_for(const BigNum* candidate) {
  if (candidate->len < 4) return 20;
  if (candidate->len < 16) return 14;
  return candidate->len < 32 ? 7 : 4;
}

// PrimeSearch is one run of bn_find_prime.
class PrimeSearch {
 public:
  PrimeSearch(const BigNum* low, const BigNum* high, const BigNum* step,
              ByteSource source)
      : low_(low), high_(high), step_(step), source_(source) {}

  BigNumPtr run();

 private:
  bool prepare();
  int draw_candidate();
  Verdict test_candidate();

  const BigNum* low_;
  const BigNum* high_;
  const BigNum* step_;
  ByteSource source_;
  BigNumPtr span_, candidate_, rest_, scratch_, witness_;
  MillerRabin miller_rabin_;
};

bool PrimeSearch::prepare() {
  const std::uint64_t limbs = std::max(high_->len, step_->len) + 1;
  span_ = bn_dup(high_);
  candidate_ = bn_new(0, limbs);
  rest_ = bn_new(0, limbs);
  scratch_ = bn_new(0, limbs);
  witness_ = bn_new(0, limbs);
  if (span_ == nullptr || candidate_ == nullptr || rest_ == nullptr ||
      scratch_ == nullptr || witness_ == nullptr) {
    return false;
  }
  bn_sub(span_.get(), low_);
  return miller_rabin_.prepare(limbs);
}

// draw_candidate draws until the candidate, 1 modulo the step, is not below the
// range; run judges its upper end.
int PrimeSearch::draw_candidate() {
  BigNum* candidate = candidate_.get();
  do {
    if (bn_fill_random_range(candidate, low_, span_.get(), scratch_.get(),
                             4 * high_->len, source_) != 0) {
      return -1;
    }
    base_set_bit(candidate->data, 0);
    candidate->len = std::max<std::uint64_t>(candidate->len, 1);
    if (bn_mod_into(rest_.get(), candidate, step_, scratch_.get()) != 0) {
      return -1;
    }
    bn_sub(candidate, rest_.get());
    bn_add_word(candidate, 1);
  } while (bn_less(candidate, low_));
  return 0;
}

Verdict PrimeSearch::test_candidate() {
  const BigNum* candidate = candidate_.get();
  // 1 passes the division, and has no witness below it.
  if (bn_equal_word(candidate, 1) || !bn_is_small_prime_free(candidate)) {
    return Verdict::kComposite;
  }
  for (int left = rounds_for(candidate); left > 0; --left) {
    if (bn_fill_random_below(witness_.get(), candidate, urandom_bytes) != 0) {
      return Verdict::kFailed;
    }
    const Verdict verdict = miller_rabin_.round(candidate, witness_.get());
    if (verdict != Verdict::kPassed) return verdict;
  }
  return Verdict::kPassed;
}

BigNumPtr PrimeSearch::run() {
  if (!prepare()) return nullptr;
  for (;;) {
    if (draw_candidate() != 0) return nullptr;
    while (bn_less_equal(candidate_.get(), high_)) {
      switch (test_candidate()) {
        case Verdict::kPassed:
          return std::move(candidate_);
        case Verdict::kFailed:
          return nullptr;
        case Verdict::kComposite:
          break;
      }
      if (bn_add(candidate_.get(), step_) != 0) return nullptr;
    }
  }
}

}  // namespace

bool bn_is_small_prime_free(const BigNum* n) {
  if (bn_less_word(n, kSmallPrimeLimit)) {
    return is_small_number_prime(n->len == 0 ? 0 : n->data[0]);
  }
  for (const PrimeGroup& group : kGroups) {
    const std::uint64_t remainder = remainder_of(n, group);
    for (std::uint32_t i = group.begin; i < group.end; ++i) {
      if (remainder % kSmallPrimes[i] == 0) return false;
    }
  }
  return true;
}

bool bn_miller_rabin(const BigNum* n, const BigNum* witness) {
  MillerRabin miller_rabin;
  return miller_rabin.prepare(std::max(n->len, witness->len)) &&
         miller_rabin.round(n, witness) == Verdict::kPassed;
}

BigNumPtr bn_find_prime(const BigNum* low, const BigNum* high,
                        const BigNum* step, ByteSource source) {
  if (bn_less_equal(high, low) || bn_equal_word(step, 0)) return nullptr;
  return PrimeSearch(low, high, step, source).run();
}

}  // namespace velprobe
