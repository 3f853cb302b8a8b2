// The value codec and the streams under it.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "protocol/ber_codec.h"
#include "protocol/socket_stream.h"
#include "support/bytes.h"
#include "support/scripted_peer.h"
#include "support/streams.h"
#include "support/temp_folder.h"

namespace velprobe {
namespace {

using Operation = std::function<ErrorText(BerStream&)>;

std::string written(const Operation& write, const std::string& error = "") {
  const BerStreamPtr stream = stream_of();
  EXPECT_EQ(text_of(write(*stream)), error);
  return hex_of(memory_stream_bytes(*stream));
}

Operation integer(std::int32_t value) {
  return [=](BerStream& s) {
    return write_signed_int(s, INT32_MIN, INT32_MAX, value);
  };
}

TEST(Codec, WritesTheBytesOfTheWire) {
  const struct {
    Operation write;
    const char* hex;
    std::string error = {};
  } rows[] = {
      {[](BerStream& s) { return write_tag(s, 240); }, "1E"},
      {[](BerStream& s) { return write_tag(s, 251); }, "7F 1F"},
      {[](BerStream& s) { return write_tag(s, 128 * 8 + 5); }, "BF 81 00"},
      {[](BerStream& s) { return write_tag(s, 0xFFFFFFFF); },
       "FF 81 FF FF FF 7F"},
      {[](BerStream& s) { return write_length(s, 127); }, "7F"},
      {[](BerStream& s) { return write_length(s, 128); }, "81 80"},
      {[](BerStream& s) { return write_length(s, 0xFFFFFFFF); },
       "84 FF FF FF FF"},
      {write_list_begin, "30 80"},
      {write_indefinite_length, "80"},
      {[](BerStream& s) { return write_bool(s, 7); }, "01 01 01"},
      {[](BerStream& s) { return write_string(s, 9, nullptr); }, "04 00"},
      {write_null, "05 00"},
      {[](BerStream& s) { return write_real(s, -0.0); }, "09 00"},
      {[](BerStream& s) { return write_real(s, 1.5); },
       "09 0D 00 31 2E 35 30 30 30 30 30 65 2B 30 30"},
      {[](BerStream& s) { return write_real(s, NAN); }, "09 01 60"},
      {[](BerStream& s) { return write_real(s, HUGE_VAL); }, "09 01 40"},
      {[](BerStream& s) { return write_real(s, -HUGE_VAL); }, "09 01 41"},
      {[](BerStream& s) { return write_enumerated(s, UINT32_MAX, 80); },
       "0A 05 00 FF FF FF FF"},
      // Integers in as few bytes as their sign allows.
      {integer(0), "02 00"},
      {integer(127), "02 01 7F"},
      {integer(128), "02 02 00 80"},
      {integer(32768), "02 03 00 80 00"},
      {integer(INT32_MAX), "02 04 7F FF FF FF"},
      {[](BerStream& s) {
         return write_unsigned_int(s, 0, UINT32_MAX, 1U << 31);
       },
       "02 05 00 80 00 00 00"},
      {integer(-1), "02 01 FF"},
      {integer(-128), "02 01 80"},
      {integer(-129), "02 02 FF 7F"},
      {integer(INT32_MIN), "02 04 80 00 00 00"},
      // What is out of range.
      {[](BerStream& s) { return write_unsigned_int(s, 1, 5, 0); }, "",
       "data out of range in write_unsigned_int"},
      {[](BerStream& s) { return write_string(s, 1, "ab"); }, "04",
       "data out of range in write_string"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(written(row.write, row.error), row.hex);
  }
}

// One reader of each type under the limits that the rows below poke.
std::string read_one(const std::string& type, BerStream& s, std::uint32_t tag) {
  std::uint32_t number = 0;
  std::int32_t integer = 0;
  int flag = 0;
  double real = 0;
  Text text;
  BigNumPtr big;
  if (type == "unsigned") {
    return text_of(read_unsigned_int(s, 1, 300, number, tag));
  }
  if (type == "signed") {
    return text_of(read_signed_int(s, -1, 300, integer, tag));
  }
  if (type == "enum") return text_of(read_enumerated(s, number, 80, tag));
  if (type == "bool") return text_of(read_bool(s, flag, tag));
  if (type == "string") return text_of(read_string(s, 4, text, tag));
  if (type == "real") return text_of(read_real(s, real, tag));
  if (type == "null") return text_of(read_null(s, tag));
  if (type == "bignum") return text_of(read_bignum(s, big, tag));
  if (type == "skip") return text_of(skip_value(s, tag));
  if (type == "eol") return text_of(skip_to_eol(s));
  return "no such reader";
}

TEST(Codec, ReadsWhatIsWellFormedAndNamesWhatIsNot) {
  constexpr const char* kOpenInside =
      "List not terminated correctly in read_devnode_list";
  const struct {
    const char* type;
    const char* hex;
    const char* error;
    std::uint32_t tag = 0;  // which the caller has read
  } rows[] = {
      {"unsigned", "01 05", "", BE_INTEGER},
      {"skip", "01 05", "", BE_BOOLEAN},
      {"unsigned", "19 19 02 01 05", ""},  // filler before a tag
      {"unsigned", "1F 02 01 05", ""},     // a low number in the long form
      {"unsigned", "02 84 00 00 00 02 01 2C", ""},
      {"unsigned", "02 00", "data out of range in read_unsigned_int"},
      {"unsigned", "02 02 01 2D", "data out of range in read_unsigned_int"},
      {"unsigned", "02 80", "data out of range in read_unsigned_int"},
      {"unsigned", "02 06", "data out of range in read_unsigned_int"},
      {"unsigned", "02 01 80", "data out of range in read_unsigned_int"},
      {"unsigned", "02 05 01 00 00 00 05",
       "data out of range in read_unsigned_int"},
      {"unsigned", "02 85", "data out of range in read_length"},
      {"unsigned", "03 01 05", "Wrong tag, expected BE_INTEGER"},
      {"signed", "02 02 FF FF", ""},
      {"signed", "02 01 FE", "data out of range in read_signed_int"},
      {"signed", "02 05 00 00 00 00 01",
       "data out of range in read_signed_int"},
      {"enum", "0A 05 00 FF FF FF FF", ""},
      {"enum", "0A 04 FF FF FF FF", "data out of range in read_enumerated"},
      {"enum", "02 00", "Wrong tag, expected another type"},
      {"bool", "01 81 01 FF", ""},
      {"bool", "01 00", "data out of range in read_bool"},
      {"bool", "02 01 00", "Wrong tag, expected BE_BOOLEAN"},
      {"string", "04 80", "data out of range in read_string"},
      {"string", "05 00", "Wrong tag, expected BE_STRING"},
      {"real", "09 02 00 30", "Zero/non-zero real mismatch"},
      {"real", "09 01 00", "Zero/non-zero real mismatch"},
      {"real", "09 01 42", "Unsupported real number format revceived"},
      {"real", "09 3C", "data out of range in read_bool"},
      {"real", "01 00", "Wrong tag, expected BE_REAL"},
      {"null", "05 81 00", ""},
      {"null", "05 80", "Null object contains data of non-zero length"},
      {"null", "04 00", "Wrong tag, expected BE_NULL"},
      {"bignum", "02 80", "data out of range in read_bignum"},
      // A claim of 4 GiB costs what arrives of it.
      {"bignum", "02 84 FF FF FF FF 01", "Peer closed connection unexpectedly"},
      {"skip", "30 80 30 80 02 01 05 00 00 00 82 00 00", ""},
      {"skip", "00 00", "skip_value encountered end of list"},
      {"skip", "30 80 00 85", kOpenInside},
      {"skip", "30 80 00 82 00 01", kOpenInside},
      {"eol", "05 00 30 80 01 01 00 00 00 00 84 00 00 00 00", ""},
      {"eol", "00 80", "List not terminated correctly in skip_to_eol"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.type) + " " + row.hex);
    BerStreamPtr stream = stream_of(bytes_of(row.hex));
    EXPECT_EQ(read_one(row.type, *stream, row.tag), row.error);
    if (*row.error == '\0') {
      EXPECT_EQ(hex_of(memory_stream_bytes(*stream)), "");
    }
  }
}

TEST(Codec, WritesAgainWhatItRead) {
  for (const char* hex :
       {"09 00", "09 01 40", "09 01 41",
        "09 0F 00 2D 32 2E 35 30 30 30 30 30 65 2D 33 30 30"}) {
    double value = -7e77;
    EXPECT_FALSE(read_real(*stream_of(bytes_of(hex)), value, 0));
    EXPECT_EQ(written([=](BerStream& s) { return write_real(s, value); }), hex);
  }
  // Bare magnitudes, each over the one before.
  BigNumPtr number = bn_power_of_two(700);
  for (const char* hex : {"02 05 01 00 00 00 00", "02 00", "02 01 80"}) {
    ASSERT_FALSE(read_bignum(*stream_of(bytes_of(hex)), number, 0));
    EXPECT_EQ(
        written([&](BerStream& s) { return write_bignum(s, number.get()); }),
        hex);
  }
  int flag = 0xAA;
  EXPECT_FALSE(read_bool(*stream_of(bytes_of("01 01 80")), flag, 0));
  EXPECT_EQ(flag, 1);
  Text text = copy_text("longer than the new one");
  EXPECT_FALSE(read_string(*stream_of(bytes_of("04 01 61")), 9, text, 0));
  EXPECT_STREQ(text.get(), "a");
}

TEST(Codec, RealsHaveAPointInEveryLocale) {
  const std::string bytes =
      bytes_of("09 0D 00 31 2E 35 30 30 30 30 30 65 2B 30 30");
  TempFolder locales;
  const std::string make = "localedef -i de_DE -f ISO-8859-1 " +
                           locales.path("de_DE") + " 2>/dev/null";
  const int status = std::system(make.c_str());
  setenv("LOCPATH", locales.path("").c_str(), 1);
  if (setlocale(LC_NUMERIC, "de_DE") == nullptr) {
    GTEST_SKIP() << "no locale with a decimal comma: localedef gave " << status;
  }
  double value = 0;
  EXPECT_FALSE(read_real(*stream_of(bytes), value, 0));
  EXPECT_EQ(value, 1.5);
  EXPECT_EQ(written([=](BerStream& s) { return write_real(s, value); }),
            hex_of(bytes));
  EXPECT_STREQ(localeconv()->decimal_point, ",");
  setlocale(LC_NUMERIC, "C");
}

TEST(Codec, ReadsBigNumbersLongerThanItWrites) {
  std::string bytes(20 * 1024, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(i * i % 251 + 1);
  }
  BigNumPtr number;
  ASSERT_FALSE(
      read_bignum(*stream_of(bytes_of("02 82 50 00") + bytes), number, 0));
  std::string back(bytes.size(), '\0');
  std::uint64_t length = back.size();
  EXPECT_FALSE(bn_get_data(
      number.get(), reinterpret_cast<std::uint8_t*>(back.data()), length));
  EXPECT_TRUE(length == bytes.size() && back == bytes);
}

TEST(MemoryStream, ForgetsWhatItIsToldTo) {
  const BerStreamPtr stream = stream_of("abc");
  char byte = 0;
  EXPECT_FALSE(stream->operations.read(stream.get(), &byte, 1));
  EXPECT_EQ(memory_stream_bytes(*stream), "bc");
  memory_stream_clear(*stream);
  EXPECT_FALSE(stream->operations.wait_readable(stream.get(), 0));
  EXPECT_FALSE(stream->operations.write(stream.get(), "de", 2));
  EXPECT_TRUE(stream->operations.wait_readable(stream.get(), 0));
  EXPECT_EQ(memory_stream_bytes(*stream), "de");
}

TEST(SocketStream, ACutTextShowsOnlyWhatCame) {
  constexpr std::size_t kClaimed = 256;
  std::memset(new_text(kClaimed).get(), 'x', kClaimed);  // what lay there
  ScriptedPeer peer({.answer = bytes_of("04 82 01 00 41")});
  BerStreamPtr stream;
  ASSERT_FALSE(socket_stream_open(stream, {127, 0, 0, 1}, peer.port(), 1));
  ASSERT_FALSE(stream->operations.write(stream.get(), "x", 1));
  Text text;
  EXPECT_EQ(text_of(read_string(*stream, kClaimed, text, 0)),
            "Peer closed connection unexpectedly");
  EXPECT_EQ(std::string(text.get(), kClaimed + 1),
            "A" + std::string(kClaimed, '\0'));
}

TEST(SocketStream, WritesGatherUntilAFlushAReadOrTheClose) {
  ScriptedPeer peer({.answer = "x"});
  BerStreamPtr stream;
  ASSERT_FALSE(socket_stream_open(stream, {127, 0, 0, 1}, peer.port(), 0));
  const auto& [read, write, flush, wait, close] = stream->operations;
  EXPECT_FALSE(write(stream.get(), "a", 1));
  EXPECT_FALSE(write(stream.get(), "b", 1));
  // Corked bytes stay for 200 milliseconds at most.
  usleep(20000);
  EXPECT_FALSE(flush(stream.get()));
  EXPECT_FALSE(write(stream.get(), "c", 1));
  char answer = 0;
  EXPECT_FALSE(read(stream.get(), &answer, 1));
  EXPECT_EQ(answer, 'x');
  int num_unsent = -1;
  ioctl(socket_stream_handle(*stream), SIOCOUTQNSD, &num_unsent);
  EXPECT_EQ(num_unsent, 0);
  EXPECT_FALSE(write(stream.get(), "d", 1));
  stream.reset();
  peer.stop();
  EXPECT_EQ(peer.request() + peer.rest(), "abcd");
  EXPECT_EQ(peer.data_segments(), 3U);
}

}  // namespace
}  // namespace velprobe
