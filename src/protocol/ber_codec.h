// The value codec: a subset of the Basic Encoding Rules (X.690) with this
// protocol's own tag assignments.
//
// A tag is handled as one unsigned integer, the tag value:
//
//   tag number * 8 + class * 2 + constructed bit
//
// with class 0 universal, 1 application, 2 context, 3 private. Messages and
// lists have indefinite length, everything else a definite one.
//
// Writers take the stream and the value; readers take the stream, the place
// for the result and, last, a tag that the caller has already read, or 0 when
// the reader has to read it (so an end-of-contents is not to be handed on).
// Everything fails with the stream's own texts, unchanged, beside those named
// below. After a failed read the stream stands wherever the failure left it:
// the message is to be abandoned.
#ifndef VELPROBE_PROTOCOL_BER_CODEC_H_
#define VELPROBE_PROTOCOL_BER_CODEC_H_

#include <cstddef>
#include <cstdint>

#include "../modules/Crypto/bignum.h"
#include "../util/error_text.h"
#include "../util/text.h"
#include "ber_stream.h"

#pragma GCC visibility push(default)
namespace velprobe {

// Tag values of the types.
inline constexpr std::uint32_t BE_END_OF_CONTENTS = 0;
inline constexpr std::uint32_t BE_BOOLEAN = 8;
inline constexpr std::uint32_t BE_INTEGER = 16;
inline constexpr std::uint32_t BE_STRING = 32;
inline constexpr std::uint32_t BE_NULL = 40;
inline constexpr std::uint32_t BE_REAL = 72;
inline constexpr std::uint32_t BE_ENUMERATED = 80;
inline constexpr std::uint32_t BE_LIST = 129;

// A big number takes at most so many contents bytes on the wire.
inline constexpr std::size_t kBigNumBytes = 140;

// --- Tags and lengths ---------------------------------------------------

// write_tag writes the identifier byte or bytes of a tag value.
ErrorText write_tag(BerStream& stream, std::uint32_t tag);

// read_tag reads the next tag value, passing over filler bytes (0x19). A tag
// number that outgrows 32 bits wraps.
ErrorText read_tag(BerStream& stream, std::uint32_t& out_tag);

// write_length writes a definite length in the fewest bytes.
ErrorText write_length(BerStream& stream, std::uint32_t length);

// write_indefinite_length writes the single byte 0x80.
ErrorText write_indefinite_length(BerStream& stream);

// read_length reads a length; an indefinite one sets out_indefinite and a
// length of 0.
//   "data out of range in read_length": more than 4 length bytes
ErrorText read_length(BerStream& stream, std::uint32_t& out_length,
                      bool& out_indefinite);

// --- Lists and messages -------------------------------------------------

// write_constructed_begin opens a list or message: its tag and the indefinite
// length.
ErrorText write_constructed_begin(BerStream& stream, std::uint32_t tag);

// write_list_begin opens a list of values, which write_end_of_contents closes.
ErrorText write_list_begin(BerStream& stream);

// write_end_of_contents closes the innermost open list or message.
ErrorText write_end_of_contents(BerStream& stream);

// skip_value consumes one whole value of any type, nested to any depth.
//   "skip_value encountered end of list": an end-of-contents where the value
//   should begin
//   "List not terminated correctly in read_devnode_list"
//   "data out of range in read_length"
ErrorText skip_value(BerStream& stream, std::uint32_t tag);

// skip_to_eol consumes the rest of the innermost open list or message, its
// end-of-contents included.
//   "List not terminated correctly in skip_to_eol" for the list itself, else
//   the texts of skip_value
ErrorText skip_to_eol(BerStream& stream);

// --- Values -------------------------------------------------------------

// write_unsigned_int and write_signed_int check the range before they write
// anything.
//   "data out of range in write_unsigned_int"
//   "data out of range in write_signed_int"
ErrorText write_unsigned_int(BerStream& stream, std::uint32_t minimum,
                             std::uint32_t maximum, std::uint32_t value);
ErrorText write_signed_int(BerStream& stream, std::int32_t minimum,
                           std::int32_t maximum, std::int32_t value);

// read_unsigned_int reads an integer from minimum to maximum. A failure leaves
// out_value alone, as with all readers of numbers but read_real.
//   "Wrong tag, expected BE_INTEGER"
//   "data out of range in read_unsigned_int": indefinite or over 5 bytes,
//   negative, or outside [minimum, maximum]
ErrorText read_unsigned_int(BerStream& stream, std::uint32_t minimum,
                            std::uint32_t maximum, std::uint32_t& out_value,
                            std::uint32_t tag);

// read_signed_int reads an integer from minimum to maximum.
//   "Wrong tag, expected BE_INTEGER"
//   "data out of range in read_signed_int": indefinite or over 4 bytes, or
//   outside [minimum, maximum]
ErrorText read_signed_int(BerStream& stream, std::int32_t minimum,
                          std::int32_t maximum, std::int32_t& out_value,
                          std::uint32_t tag);

// write_enumerated writes any unsigned value under the given type tag
// (BE_ENUMERATED throughout this protocol).
ErrorText write_enumerated(BerStream& stream, std::uint32_t value,
                           std::uint32_t type_tag);

// read_enumerated reads any unsigned value under the given type tag.
//   "Wrong tag, expected another type"
//   "data out of range in read_enumerated": indefinite or over 5 bytes, or
//   negative
ErrorText read_enumerated(BerStream& stream, std::uint32_t& out_value,
                          std::uint32_t type_tag, std::uint32_t tag);

// write_bool writes any non-zero value as true.
ErrorText write_bool(BerStream& stream, int value);

// read_bool yields 0 or 1.
//   "Wrong tag, expected BE_BOOLEAN"
//   "data out of range in read_bool": the length is not 1
ErrorText read_bool(BerStream& stream, int& out_value, std::uint32_t tag);

// write_string writes text, which may be null and then goes out as an empty
// one. maximum is in bytes.
//   "data out of range in write_string": longer than maximum; the tag is
//   already written
ErrorText write_string(BerStream& stream, std::uint32_t maximum,
                       const char* text);

// read_string reads a text of at most maximum bytes. The caller owns it, also
// when the read of its bytes fails: then it ends with the last one that came.
//   "Wrong tag, expected BE_STRING"
//   "data out of range in read_string": indefinite or longer than maximum
//   "Unable to allocate data in read_string"
ErrorText read_string(BerStream& stream, std::uint32_t maximum, Text& out_text,
                      std::uint32_t tag);

// write_real writes zero as no contents, infinities and not-a-number as one
// format byte, anything else as text of seven significant digits ("%e" of
// printf with a point, whatever the process's locale is).
//   "String representation of double larger than buffer"
ErrorText write_real(BerStream& stream, double value);

// read_real reads what write_real writes, and any decimal text that strtod
// takes.
//   "Wrong tag, expected BE_REAL"
//   "data out of range in read_bool": indefinite or over 59 bytes; the name
//   is part of the text that users know
//   "Zero/non-zero real mismatch": a text that converts to zero
//   "Unsupported real number format revceived"
ErrorText read_real(BerStream& stream, double& out_value, std::uint32_t tag);

// write_null and read_null carry the value that has no contents.
ErrorText write_null(BerStream& stream);

//   "Wrong tag, expected BE_NULL"
//   "Null object contains data of non-zero length"
ErrorText read_null(BerStream& stream, std::uint32_t tag);

// write_bignum writes the magnitude without a sign byte, so that a number whose
// top bit is set looks negative to other readers of BER. A null number goes out
// as zero.
//   "Buffer given to bn_get_data is too small": over 35 limbs in use; nothing
//   is written
ErrorText write_bignum(BerStream& stream, const BigNum* number);

// read_bignum reads an unsigned magnitude of any length and hands the caller a
// new number. Memory grows with the bytes that arrive, never with the length
// that the peer claims.
//   "Wrong tag, expected BE_INTEGER"
//   "data out of range in read_bignum": indefinite length
//   "Out of memory in read_bignum"
ErrorText read_bignum(BerStream& stream, BigNumPtr& out_number,
                      std::uint32_t tag);

// --- Versions -----------------------------------------------------------

// same_major_version is true when two protocol versions agree in bits 8 to 15.
constexpr bool same_major_version(std::uint32_t a, std::uint32_t b) {
  return ((a ^ b) & 0xFF00U) == 0;
}

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_BER_CODEC_H_
