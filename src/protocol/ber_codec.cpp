#include "ber_codec.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "../util/byte_buffer.h"

namespace velprobe {
namespace {

constexpr std::uint8_t kLongForm = 0x80;  // and the number of length bytes
constexpr std::uint8_t kIndefiniteLength = kLongForm;
constexpr std::uint8_t kLongestLengthForm = kLongForm | 4;
constexpr std::uint32_t kFillerTag = 0x19 * 8;
constexpr std::uint32_t kFirstHighTag = 31 * 8;
constexpr std::uint32_t kLongestInteger = 5;
constexpr std::uint32_t kLongestReal = 59;

// Format bytes of reals (X.690 8.5): a decimal text, and the special values in
// this protocol's own assignment.
constexpr std::uint8_t kRealText = 0x00;
constexpr std::uint8_t kRealPlusInfinity = 0x40;
constexpr std::uint8_t kRealMinusInfinity = 0x41;
constexpr std::uint8_t kRealNotANumber = 0x60;

// Piece gathers what one operation puts on the stream in one write.
struct Piece {
  std::array<std::uint8_t, 80> bytes;
  std::size_t size = 0;

  void add(std::uint8_t byte) { bytes[size++] = byte; }
  void add(const void* from, std::size_t count) {
    if (count == 0) return;  // from may be null then
    std::memcpy(&bytes[size], from, count);
    size += count;
  }
  ErrorText write_to(BerStream& stream) const {
    return stream.operations.write(&stream, bytes.data(), size);
  }
};

// X.690 8.1.2: numbers from 31 on follow in base 128, most significant group
// first.
void add_tag(Piece& piece, std::uint32_t tag) {
  const auto class_and_form = static_cast<std::uint8_t>((tag & 7U) << 5);
  if (tag < kFirstHighTag) {
    piece.add(static_cast<std::uint8_t>(class_and_form | (tag >> 3)));
    return;
  }
  piece.add(class_and_form | 0x1F);
  const std::uint32_t number = tag >> 3;
  int shift = 28;
  while ((number >> shift) == 0) shift -= 7;
  for (; shift > 0; shift -= 7) {
    piece.add(static_cast<std::uint8_t>(0x80 | ((number >> shift) & 0x7F)));
  }
  piece.add(number & 0x7F);
}

// X.690 8.1.3: short form below 128, else the fewest length bytes.
void add_length(Piece& piece, std::uint32_t length) {
  if (length < 0x80) {
    piece.add(static_cast<std::uint8_t>(length));
    return;
  }
  std::uint8_t count = 4;
  while ((length >> (8 * (count - 1))) == 0) --count;
  piece.add(static_cast<std::uint8_t>(kLongForm | count));
  while (count > 0) {
    --count;
    piece.add(static_cast<std::uint8_t>(length >> (8 * count)));
  }
}

// X.690 8.3, minimal two's complement, but zero has no contents at all.
void add_integer(Piece& piece, std::int64_t value) {
  std::uint8_t count = 0;
  if (value != 0) {
    count = 1;
    while ((value >> (8 * count - 1)) != 0 &&
           (value >> (8 * count - 1)) != -1) {
      ++count;
    }
  }
  add_length(piece, count);
  while (count > 0) {
    --count;
    piece.add(static_cast<std::uint8_t>(value >> (8 * count)));
  }
}

// Short contents leave with their header, long ones without a copy.
ErrorText write_contents(BerStream& stream, Piece& header, const void* bytes,
                         std::size_t length) {
  if (length <= header.bytes.size() - header.size) {
    header.add(bytes, length);
    return header.write_to(stream);
  }
  if (ErrorText error = header.write_to(stream)) return error;
  return stream.operations.write(&stream, bytes, length);
}

ErrorText write_integer(BerStream& stream, std::uint32_t tag,
                        std::int64_t value) {
  Piece piece;
  add_tag(piece, tag);
  add_integer(piece, value);
  return piece.write_to(stream);
}

ErrorText read_bytes(BerStream& stream, void* buffer, std::size_t size) {
  return stream.operations.read(&stream, buffer, size);
}

// The bytes of a long-form length behind its first byte, big-endian.
ErrorText read_long_length(BerStream& stream, std::uint8_t first,
                           std::uint32_t& out_length) {
  std::array<std::uint8_t, 4> bytes{};
  const std::size_t count = first & 0x7FU;
  if (ErrorText error = read_bytes(stream, bytes.data(), count)) return error;
  out_length = 0;
  for (std::size_t i = 0; i < count; ++i) {
    out_length = (out_length << 8) | bytes[i];
  }
  return {};
}

// What a primitive reader checks before it looks at the contents.
struct PrimitiveRules {
  std::uint32_t tag;
  const char* wrong_tag;
  std::uint32_t longest;
  const char* out_of_range;
};

ErrorText read_primitive_header(BerStream& stream, const PrimitiveRules& rules,
                                std::uint32_t tag, std::uint32_t& out_length) {
  if (tag == 0) {
    if (ErrorText error = read_tag(stream, tag)) return error;
  }
  if (tag != rules.tag) return rules.wrong_tag;
  bool indefinite = false;
  if (ErrorText error = read_length(stream, out_length, indefinite)) {
    return error;
  }
  if (indefinite || out_length > rules.longest) return rules.out_of_range;
  return {};
}

// A non-negative integer of at most 32 bits: five bytes begin with 0x00, fewer
// have their top bit clear.
ErrorText read_magnitude(BerStream& stream, const PrimitiveRules& rules,
                         std::uint32_t tag, std::uint32_t& out_value) {
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, rules, tag, length)) {
    return error;
  }
  std::array<std::uint8_t, kLongestInteger> bytes{};
  if (ErrorText error = read_bytes(stream, bytes.data(), length)) return error;
  const std::uint8_t first_limit = length == kLongestInteger ? 0x00 : 0x7F;
  if (bytes[0] > first_limit) return rules.out_of_range;
  out_value = 0;
  for (std::uint32_t i = 0; i < length; ++i) {
    out_value = (out_value << 8) | bytes[i];
  }
  return {};
}

ErrorText discard(BerStream& stream, std::uint32_t length) {
  std::array<std::uint8_t, 128> waste;
  while (length > 0) {
    const std::size_t piece = std::min<std::size_t>(length, waste.size());
    if (ErrorText error = read_bytes(stream, waste.data(), piece)) return error;
    length -= static_cast<std::uint32_t>(piece);
  }
  return {};
}

// The length of an end-of-contents is zero, in the short form or a long one.
ErrorText read_end_length(BerStream& stream, const char* not_terminated) {
  std::uint8_t first = 0;
  if (ErrorText error = read_bytes(stream, &first, 1)) return error;
  std::uint32_t length = first;
  if (first > kIndefiniteLength && first <= kLongestLengthForm) {
    if (ErrorText error = read_long_length(stream, first, length)) return error;
  }
  if (length != 0) return not_terminated;
  return {};
}

constexpr const char* kInnerListNotTerminated =
    "List not terminated correctly in read_devnode_list";

// Consumes the rest of one open list with all that is nested in it. Depth is
// the peer's choice, so it costs a counter and no stack.
ErrorText skip_open_list(BerStream& stream, const char* not_terminated) {
  std::uint64_t open_lists = 1;
  while (open_lists > 0) {
    std::uint32_t tag = 0;
    if (ErrorText error = read_tag(stream, tag)) return error;
    if (tag == BE_END_OF_CONTENTS) {
      const char* text =
          open_lists == 1 ? not_terminated : kInnerListNotTerminated;
      if (ErrorText error = read_end_length(stream, text)) return error;
      --open_lists;
      continue;
    }
    std::uint32_t length = 0;
    bool indefinite = false;
    if (ErrorText error = read_length(stream, length, indefinite)) return error;
    if (indefinite) {
      ++open_lists;
    } else if (ErrorText error = discard(stream, length)) {
      return error;
    }
  }
  return {};
}

// PointLocale makes the thread's numbers those of the C locale, with a point,
// for as long as it lives. printf and strtod by it, rather than <charconv>:
// strtod takes more forms, which peers may use, and std::to_chars would be a
// third of the program and load the mathematics library.
class PointLocale {
 public:
  PointLocale() = default;
  PointLocale(const PointLocale&) = delete;
  PointLocale& operator=(const PointLocale&) = delete;
  ~PointLocale() { ::uselocale(callers_); }

 private:
  static locale_t c_locale() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
  }
  locale_t callers_ = ::uselocale(c_locale());
};

double real_of(const char* text) {
  const PointLocale locale;
  return std::strtod(text, nullptr);
}

// Reads length bytes into a buffer that grows as they arrive.
ErrorText read_growing(BerStream& stream, std::uint32_t length,
                       ByteBuffer& bytes, ErrorText out_of_memory) {
  constexpr std::size_t kFirstPiece = 4096;
  while (bytes.size() < length) {
    const std::size_t piece = std::min<std::size_t>(
        length - bytes.size(), std::max(bytes.size(), kFirstPiece));
    if (!bytes.reserve(piece)) return out_of_memory;
    char* end = bytes.data() + bytes.size();
    if (ErrorText error = read_bytes(stream, end, piece)) return error;
    bytes.resize(bytes.size() + piece);
  }
  return {};
}

}  // namespace

ErrorText write_tag(BerStream& stream, std::uint32_t tag) {
  Piece piece;
  add_tag(piece, tag);
  return piece.write_to(stream);
}

ErrorText read_tag(BerStream& stream, std::uint32_t& out_tag) {
  std::uint8_t byte = 0;
  do {
    if (ErrorText error = read_bytes(stream, &byte, 1)) return error;
    out_tag = (byte & 0x1FU) * 8 + (byte >> 5);
  } while (out_tag == kFillerTag);
  if ((byte & 0x1F) != 0x1F) return {};

  std::uint32_t tag = byte >> 5;
  do {
    if (ErrorText error = read_bytes(stream, &byte, 1)) return error;
    tag = ((tag & ~7U) << 7) | ((byte & 0x7FU) << 3) | (tag & 7U);
  } while ((byte & 0x80) != 0);
  out_tag = tag;
  return {};
}

ErrorText write_length(BerStream& stream, std::uint32_t length) {
  Piece piece;
  add_length(piece, length);
  return piece.write_to(stream);
}

ErrorText write_indefinite_length(BerStream& stream) {
  return stream.operations.write(&stream, &kIndefiniteLength, 1);
}

ErrorText read_length(BerStream& stream, std::uint32_t& out_length,
                      bool& out_indefinite) {
  std::uint8_t first = 0;
  if (ErrorText error = read_bytes(stream, &first, 1)) return error;
  out_indefinite = first == kIndefiniteLength;
  out_length = 0;
  if (out_indefinite) return {};
  if (first > kLongestLengthForm) return "data out of range in read_length";
  if (first > kIndefiniteLength) {
    return read_long_length(stream, first, out_length);
  }
  out_length = first;
  return {};
}

ErrorText write_constructed_begin(BerStream& stream, std::uint32_t tag) {
  Piece piece;
  add_tag(piece, tag);
  piece.add(kIndefiniteLength);
  return piece.write_to(stream);
}

ErrorText write_list_begin(BerStream& stream) {
  return write_constructed_begin(stream, BE_LIST);
}

ErrorText write_end_of_contents(BerStream& stream) {
  constexpr std::uint8_t kEndOfContents[] = {0x00, 0x00};
  return stream.operations.write(&stream, kEndOfContents,
                                 sizeof kEndOfContents);
}

ErrorText skip_value(BerStream& stream, std::uint32_t tag) {
  if (tag == 0) {
    if (ErrorText error = read_tag(stream, tag)) return error;
    if (tag == BE_END_OF_CONTENTS) return "skip_value encountered end of list";
  }
  std::uint32_t length = 0;
  bool indefinite = false;
  if (ErrorText error = read_length(stream, length, indefinite)) return error;
  if (indefinite) return skip_open_list(stream, kInnerListNotTerminated);
  return discard(stream, length);
}

ErrorText skip_to_eol(BerStream& stream) {
  return skip_open_list(stream, "List not terminated correctly in skip_to_eol");
}

ErrorText write_unsigned_int(BerStream& stream, std::uint32_t minimum,
                             std::uint32_t maximum, std::uint32_t value) {
  if (value < minimum || value > maximum) {
    return "data out of range in write_unsigned_int";
  }
  return write_integer(stream, BE_INTEGER, value);
}

ErrorText write_signed_int(BerStream& stream, std::int32_t minimum,
                           std::int32_t maximum, std::int32_t value) {
  if (value < minimum || value > maximum) {
    return "data out of range in write_signed_int";
  }
  return write_integer(stream, BE_INTEGER, value);
}

ErrorText read_unsigned_int(BerStream& stream, std::uint32_t minimum,
                            std::uint32_t maximum, std::uint32_t& out_value,
                            std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {
      BE_INTEGER, "Wrong tag, expected BE_INTEGER", kLongestInteger,
      "data out of range in read_unsigned_int"};
  std::uint32_t value = 0;
  if (ErrorText error = read_magnitude(stream, kRules, tag, value)) {
    return error;
  }
  if (value < minimum || value > maximum) return kRules.out_of_range;
  out_value = value;
  return {};
}

ErrorText read_signed_int(BerStream& stream, std::int32_t minimum,
                          std::int32_t maximum, std::int32_t& out_value,
                          std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {
      BE_INTEGER, "Wrong tag, expected BE_INTEGER", sizeof(std::int32_t),
      "data out of range in read_signed_int"};
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, kRules, tag, length)) {
    return error;
  }
  std::array<std::uint8_t, sizeof(std::int32_t)> bytes{};
  if (ErrorText error = read_bytes(stream, bytes.data(), length)) return error;
  std::uint32_t bits = (bytes[0] & 0x80) != 0 ? ~0U : 0U;
  for (std::uint32_t i = 0; i < length; ++i) bits = (bits << 8) | bytes[i];
  const auto value = static_cast<std::int32_t>(bits);
  if (value < minimum || value > maximum) return kRules.out_of_range;
  out_value = value;
  return {};
}

ErrorText write_enumerated(BerStream& stream, std::uint32_t value,
                           std::uint32_t type_tag) {
  return write_integer(stream, type_tag, value);
}

ErrorText read_enumerated(BerStream& stream, std::uint32_t& out_value,
                          std::uint32_t type_tag, std::uint32_t tag) {
  const PrimitiveRules rules = {type_tag, "Wrong tag, expected another type",
                                kLongestInteger,
                                "data out of range in read_enumerated"};
  return read_magnitude(stream, rules, tag, out_value);
}

ErrorText write_bool(BerStream& stream, int value) {
  Piece piece;
  add_tag(piece, BE_BOOLEAN);
  add_length(piece, 1);
  piece.add(value != 0 ? 0x01 : 0x00);
  return piece.write_to(stream);
}

ErrorText read_bool(BerStream& stream, int& out_value, std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {BE_BOOLEAN,
                                     "Wrong tag, expected BE_BOOLEAN", 1,
                                     "data out of range in read_bool"};
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, kRules, tag, length)) {
    return error;
  }
  if (length != 1) return kRules.out_of_range;
  std::uint8_t byte = 0;
  if (ErrorText error = read_bytes(stream, &byte, 1)) return error;
  out_value = byte != 0 ? 1 : 0;
  return {};
}

ErrorText write_string(BerStream& stream, std::uint32_t maximum,
                       const char* text) {
  const std::size_t length = text == nullptr ? 0 : std::strlen(text);
  Piece header;
  add_tag(header, BE_STRING);
  if (length > maximum) {
    if (ErrorText error = header.write_to(stream)) return error;
    return "data out of range in write_string";
  }
  add_length(header, static_cast<std::uint32_t>(length));
  return write_contents(stream, header, text, length);
}

ErrorText read_string(BerStream& stream, std::uint32_t maximum, Text& out_text,
                      std::uint32_t tag) {
  const PrimitiveRules rules = {BE_STRING, "Wrong tag, expected BE_STRING",
                                maximum, "data out of range in read_string"};
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, rules, tag, length)) {
    return error;
  }
  // All zero: a text whose bytes did not all come ends with those that did, and
  // shows nothing that stood in its memory before.
  out_text = new_text(length);
  if (!out_text) return {"Unable to allocate data in read_string", ENOMEM};
  return read_bytes(stream, out_text.get(), length);
}

ErrorText write_real(BerStream& stream, double value) {
  Piece piece;
  add_tag(piece, BE_REAL);
  if (value == 0.0) {
    add_length(piece, 0);
  } else if (std::isfinite(value)) {
    std::array<char, kLongestReal> text;
    const PointLocale locale;
    const int length = std::snprintf(text.data(), text.size(), "%e", value);
    if (length < 0 || static_cast<std::size_t>(length) >= text.size()) {
      return "String representation of double larger than buffer";
    }
    add_length(piece, static_cast<std::uint32_t>(length) + 1);
    piece.add(kRealText);
    piece.add(text.data(), static_cast<std::size_t>(length));
  } else {
    add_length(piece, 1);
    piece.add(std::isnan(value) ? kRealNotANumber
              : value > 0       ? kRealPlusInfinity
                                : kRealMinusInfinity);
  }
  return piece.write_to(stream);
}

ErrorText read_real(BerStream& stream, double& out_value, std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {BE_REAL, "Wrong tag, expected BE_REAL",
                                     kLongestReal,
                                     "data out of range in read_bool"};
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, kRules, tag, length)) {
    return error;
  }
  out_value = 0.0;
  if (length == 0) return {};

  std::array<char, kLongestReal + 1> contents{};
  if (ErrorText error = read_bytes(stream, contents.data(), length)) {
    return error;
  }
  switch (static_cast<std::uint8_t>(contents[0])) {
    case kRealText:
      out_value = real_of(&contents[1]);
      if (out_value == 0.0) return "Zero/non-zero real mismatch";
      return {};
    case kRealPlusInfinity:
      out_value = std::numeric_limits<double>::infinity();
      return {};
    case kRealMinusInfinity:
      out_value = -std::numeric_limits<double>::infinity();
      return {};
    case kRealNotANumber:
      out_value = std::numeric_limits<double>::quiet_NaN();
      return {};
    default:
      return "Unsupported real number format revceived";
  }
}

ErrorText write_null(BerStream& stream) {
  Piece piece;
  add_tag(piece, BE_NULL);
  add_length(piece, 0);
  return piece.write_to(stream);
}

ErrorText read_null(BerStream& stream, std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {
      BE_NULL, "Wrong tag, expected BE_NULL", 0,
      "Null object contains data of non-zero length"};
  std::uint32_t length = 0;
  return read_primitive_header(stream, kRules, tag, length);
}

ErrorText write_bignum(BerStream& stream, const BigNum* number) {
  std::array<std::uint8_t, kBigNumBytes> bytes;
  std::uint64_t length = number == nullptr ? 0 : bytes.size();
  if (number != nullptr) {
    if (ErrorText error = bn_get_data(number, bytes.data(), length)) {
      return error;
    }
  }
  Piece header;
  add_tag(header, BE_INTEGER);
  add_length(header, static_cast<std::uint32_t>(length));
  return write_contents(stream, header, bytes.data(), length);
}

ErrorText read_bignum(BerStream& stream, BigNumPtr& out_number,
                      std::uint32_t tag) {
  constexpr PrimitiveRules kRules = {BE_INTEGER,
                                     "Wrong tag, expected BE_INTEGER",
                                     std::numeric_limits<std::uint32_t>::max(),
                                     "data out of range in read_bignum"};
  constexpr ErrorText kNoNumberMemory{"Out of memory in read_bignum", ENOMEM};
  std::uint32_t length = 0;
  if (ErrorText error = read_primitive_header(stream, kRules, tag, length)) {
    return error;
  }
  ByteBuffer bytes;
  if (ErrorText error = read_growing(stream, length, bytes, kNoNumberMemory)) {
    return error;
  }

  out_number = bn_new(0, (std::uint64_t{length} + 3) / 4);
  if (!out_number) return kNoNumberMemory;
  return bn_set_data(out_number.get(),
                     reinterpret_cast<const std::uint8_t*>(bytes.data()),
                     length);
}

}  // namespace velprobe
