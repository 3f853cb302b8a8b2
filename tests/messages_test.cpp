// Every message of the protocol, walked from its declaration.
#include "protocol/messages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/ber_codec.h"
#include "support/bytes.h"
#include "support/record.h"
#include "support/streams.h"

namespace velprobe {
namespace {

std::string encode(const MessageLayout& layout, Record& record,
                   const std::string& expected_error = "") {
  BerStreamPtr stream = stream_of();
  EXPECT_EQ(text_of(write_message(*stream, layout, record.get())),
            expected_error);
  return std::string(memory_stream_bytes(*stream));
}

std::string decode(const MessageLayout& layout, std::string_view bytes,
                   Record& record) {
  return text_of(read_message(*stream_of(bytes), layout, record.get(), 0));
}

std::string decode_error(const MessageLayout& layout, std::string_view bytes) {
  Record record(layout);
  return decode(layout, bytes, record);
}

class EveryMessage : public testing::TestWithParam<MessageLayout> {};

TEST_P(EveryMessage, ComesBackAsItWasSentAlsoFromANewerPeer) {
  const MessageLayout& layout = GetParam();
  Record record(layout);
  record.fill();
  const std::string bytes = encode(layout, record);
  const bool closed = layout.kind == MessageKind::kClosed;
  EXPECT_EQ(bytes.ends_with(bytes_of("00 00")), closed);
  std::string newer = bytes;
  if (closed) newer.insert(bytes.size() - 2, bytes_of("30 80 04 01 61 00 00"));
  for (const std::string& sent : {bytes, newer}) {
    Record back(layout);
    back.fill(70);  // of something else
    EXPECT_EQ(decode(layout, sent, back), "");
    EXPECT_EQ(hex_of(encode(layout, back)), hex_of(bytes));
  }
}

TEST_P(EveryMessage, HoldsEachLimitOnBothSides) {
  const MessageLayout& layout = GetParam();
  for (const FieldLayout& field : layout.fields) {
    SCOPED_TRACE(field.name);
    Record record(layout);
    record.fill();
    const std::string name = std::string(layout.name) + "." + field.name;
    if (field.type == FieldType::kBigNum) {  // 140 bytes hold 1120 bits
      record.set(field, 1119);
      EXPECT_EQ(decode_error(layout, encode(layout, record)), "");
      record.set(field, 1120);
      encode(layout, record,
             name + ": Buffer given to bn_get_data is too small");
    }
    const bool is_text = field.type == FieldType::kString;
    const bool is_signed = field.type == FieldType::kSigned;
    if (!is_text && !is_signed && field.type != FieldType::kUnsigned) continue;
    const std::string kind = is_text     ? "string"
                             : is_signed ? "signed_int"
                                         : "unsigned_int";
    const std::string label = name + ": data out of range in ";

    // The same message to a peer that knows no limits.
    std::vector<FieldLayout> fields(layout.fields.begin(), layout.fields.end());
    FieldLayout& loose =
        fields[static_cast<std::size_t>(&field - layout.fields.data())];
    loose.minimum = is_signed ? INT32_MIN : 0;
    loose.maximum = is_text     ? field.maximum + 1
                    : is_signed ? INT32_MAX
                                : UINT32_MAX;
    MessageLayout unlimited = layout;
    unlimited.fields = fields;

    for (std::int64_t edge : {field.minimum, field.maximum}) {
      record.set(field, edge);
      Record back(layout);
      EXPECT_EQ(decode(layout, encode(layout, record), back), "");
      if (!is_text) {
        EXPECT_EQ(back.member<std::int32_t>(field),
                  static_cast<std::int32_t>(edge));
      }
    }
    for (std::int64_t beyond : {field.minimum - 1, field.maximum + 1}) {
      if (beyond < loose.minimum || beyond > loose.maximum) continue;
      record.set(field, beyond);
      encode(layout, record, label + "write_" + kind);
      EXPECT_EQ(decode_error(layout, encode(unlimited, record)),
                label + "read_" + kind);
    }
  }
}

TEST_P(EveryMessage, RefusesForeignFraming) {
  const MessageLayout& layout = GetParam();
  const bool is_open = layout.kind == MessageKind::kOpen;
  const std::string reader =
      std::string("read_") + layout.name + (is_open ? "_incomplete" : "");
  EXPECT_EQ(decode_error(layout, bytes_of("05 80")),
            "Wrong tag (40) encountered in " + reader);
  BerStreamPtr definite = stream_of();
  ASSERT_FALSE(write_tag(*definite, layout.tag));
  ASSERT_FALSE(write_length(*definite, 0));
  EXPECT_EQ(decode_error(layout, memory_stream_bytes(*definite)),
            "Definite length read in " + reader);
}

TEST_P(EveryMessage, CutAnywhereIsAnError) {
  const MessageLayout& layout = GetParam();
  Record record(layout);
  record.fill();
  const std::string bytes = encode(layout, record);
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    const std::string error =
        decode_error(layout, std::string_view(bytes).substr(0, cut));
    EXPECT_NE(error.find("Peer closed connection unexpectedly"),
              std::string::npos)
        << cut << ": " << error;
  }
}

TEST(Enumerations, CarryAnyNumber) {
  const struct {
    ErrorText (*write)(BerStream&, std::uint32_t);
    ErrorText (*read)(BerStream&, std::uint32_t&, std::uint32_t);
  } types[] = {
#define ENUMERATION(type) {write_##type, read_##type},
#include "protocol/messages.def"
  };
  for (const auto& type : types) {
    for (const std::uint32_t value : {0U, 7U, UINT32_MAX}) {
      const BerStreamPtr stream = stream_of();
      EXPECT_FALSE(type.write(*stream, value));
      std::uint32_t back = ~value;
      EXPECT_FALSE(type.read(*stream, back, 0));
      EXPECT_EQ(back, value);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, EveryMessage,
                         testing::ValuesIn(message_catalogue().begin(),
                                           message_catalogue().end()),
                         [](const auto& row) {
                           return std::string(row.param.name);
                         });

}  // namespace
}  // namespace velprobe
