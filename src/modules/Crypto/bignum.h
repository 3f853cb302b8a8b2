// Big unsigned integers that own their storage and check their capacity.
//
// Capacity never grows by itself (bn_set_data is the one exception): an
// operation that may need more answers -1 when `size` is too small, with the
// value unchanged, and 0 otherwise. Functions that make a number return null
// when memory runs out. Numbers given in are normalised and their pointers are
// not null unless a comment says otherwise; operands may be the same number
// where nothing else is said; a number described as result or scratch is one of
// its own.
//
// Time and memory accesses of bn_power_mod, bn_mod, bn_mod_into, bn_mul,
// bn_add, bn_sub, bn_set_data and bn_get_data depend on lengths, not on values,
// with these exceptions: a result shows its leading zero limbs (bn_get_data:
// bytes) by its length, and bn_power_mod the exponent's top bit and whether the
// modulus is odd. All other functions may show values: keep secrets away from
// them.
#ifndef VELPROBE_MODULES_CRYPTO_BIGNUM_H_
#define VELPROBE_MODULES_CRYPTO_BIGNUM_H_

#include <cstdint>
#include <memory>

#include "../../util/error_text.h"
#include "../../util/text.h"
#include "bignum_value.h"

#pragma GCC visibility push(default)
namespace velprobe {

// bn_free wipes the limbs and releases them and the record; null is ignored.
// Both come from the C allocator, in two blocks.
void bn_free(BigNum* num);

struct BigNumDeleter {
  void operator()(BigNum* num) const { bn_free(num); }
};

// BigNumPtr owns a number.
using BigNumPtr = std::unique_ptr<BigNum, BigNumDeleter>;

// bn_new makes a number of the given value with a capacity of
// max(min_limbs + min_limbs / 2 + 1, 16) limbs.
[[nodiscard]] BigNumPtr bn_new(std::uint32_t value, std::uint64_t min_limbs);

// bn_from_word makes a number with a capacity of 25 limbs.
[[nodiscard]] BigNumPtr bn_from_word(std::uint32_t value);

// bn_copy copies src with a capacity of max(src->len, 16, min_limbs) limbs.
[[nodiscard]] BigNumPtr bn_copy(const BigNum* src, std::uint64_t min_limbs);

// bn_dup is bn_copy without a wish for capacity.
[[nodiscard]] BigNumPtr bn_dup(const BigNum* src);

// bn_normalize lowers len while the top limb is zero.
// Asserts num->len <= num->size.
void bn_normalize(BigNum* num);

// bn_set_data sets num from n bytes, most significant first. It enlarges the
// number when its capacity is too small. Failure, which leaves num unchanged:
// "Unable to allocate space for new data".
ErrorText bn_set_data(BigNum* num, const std::uint8_t* bytes, std::uint64_t n);

// bn_get_data writes num in the fewest bytes, most significant first: no sign
// byte, and no byte at all for zero. length is the size of buffer before and
// the count of bytes written after. The size must be at least 4 * num->len
// bytes even if fewer are written. Failure, with that count stored into length:
// "Buffer given to bn_get_data is too small".
ErrorText bn_get_data(const BigNum* num, std::uint8_t* buffer,
                      std::uint64_t& length);

// bn_top_bit gives the zero-based index of the highest set bit, for numbers of
// up to 2^32 bits; 0 for zero as well as for one.
std::uint32_t bn_top_bit(const BigNum* num);

// bn_to_decimal writes num in decimal; null when memory runs out.
[[nodiscard]] Text bn_to_decimal(const BigNum* num);

bool bn_less(const BigNum* a, const BigNum* b);
bool bn_less_equal(const BigNum* a, const BigNum* b);
bool bn_equal(const BigNum* a, const BigNum* b);
bool bn_equal_word(const BigNum* a, std::uint32_t w);
bool bn_less_word(const BigNum* a, std::uint32_t w);
bool bn_at_most_word(const BigNum* a, std::uint32_t w);
bool bn_greater_word(const BigNum* a, std::uint32_t w);

// bn_add adds b to a. -1 unless a->size exceeds the longer of the two.
[[nodiscard]] int bn_add(BigNum* a, const BigNum* b);

// bn_add_word adds w to a. Asserts a->size > a->len, by the text of
// bn_normalize.
void bn_add_word(BigNum* a, std::uint32_t w);

// bn_sub subtracts b from a and returns the final borrow: 1 when b > a, a being
// then the difference modulo 2^(32 * a->len). Asserts b_len <= a_len.
std::uint32_t bn_sub(BigNum* a, const BigNum* b);

// bn_sub_word subtracts w from a and returns the final borrow.
std::uint32_t bn_sub_word(BigNum* a, std::uint32_t w);

// bn_or sets in a every bit that is set in b. Asserts a->size >= b->len.
void bn_or(BigNum* a, const BigNum* b);

// bn_shift_left shifts a left by n bits. On -1 the limbs are unchanged but
// a->len is the length that the result would have had: such a number is fit for
// bn_free only. bn_shift_left1 behaves alike.
[[nodiscard]] int bn_shift_left(BigNum* a, std::uint64_t n);
[[nodiscard]] int bn_shift_left1(BigNum* a);

void bn_shift_right(BigNum* a, std::uint64_t n);
void bn_shift_right1(BigNum* a);

// bn_set_power_of_two sets a to 2^b.
[[nodiscard]] int bn_set_power_of_two(BigNum* a, std::uint64_t b);

// bn_set_word sets a to w with a length of 1, also for 0. -1 when a has no
// limb at all.
[[nodiscard]] int bn_set_word(BigNum* a, std::uint32_t w);

// bn_copy_into sets dst to src.
[[nodiscard]] int bn_copy_into(BigNum* dst, const BigNum* src);

// bn_strip_twos sets out to a new copy of a, shifted right until it is odd, and
// returns the number of shifts: 0 for zero. out is null when memory runs out.
std::uint64_t bn_strip_twos(const BigNum* a, BigNumPtr& out);

// bn_mod reduces a modulo m in place. scratch is a third number whose value is
// lost. -1 when m is zero or scratch is too small for a or for m.
[[nodiscard]] int bn_mod(BigNum* a, const BigNum* m, BigNum* scratch);

// bn_mod_into sets result to a mod m. -1 as for bn_mod, or when result is too
// small for a; result is unchanged then.
[[nodiscard]] int bn_mod_into(BigNum* result, const BigNum* a, const BigNum* m,
                              BigNum* scratch);

// bn_or_quotient ORs the bits of a / b into result, which is not cleared first.
// -1, with result unchanged, when b is zero, when the quotient is longer than
// result's capacity, or when memory runs out.
[[nodiscard]] int bn_or_quotient(BigNum* result, const BigNum* a,
                                 const BigNum* b);

// bn_mul makes the product.
[[nodiscard]] BigNumPtr bn_mul(const BigNum* a, const BigNum* b);

// bn_power_of_two makes 2^b.
[[nodiscard]] BigNumPtr bn_power_of_two(std::uint64_t b);

// bn_div makes the quotient a / b; null also when b is zero.
[[nodiscard]] BigNumPtr bn_div(const BigNum* a, const BigNum* b);

// bn_power_mod makes base^exponent mod modulus; null also when modulus is zero.
// An exponent of zero gives 1, even for modulus 1.
[[nodiscard]] BigNumPtr bn_power_mod(const BigNum* base, const BigNum* exponent,
                                     const BigNum* modulus);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_BIGNUM_H_
