// Every message of the protocol, walked from its declaration.
#include "protocol/messages.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "bytes.h"
#include "protocol/ber_codec.h"
#include "protocol/memory_stream.h"

namespace velprobe {
namespace {

std::string text_of(ErrorText error) {
  return error ? error.c_str() : "";
}

BerStreamPtr stream_of(std::string_view bytes) {
  BerStreamPtr stream;
  EXPECT_FALSE(memory_stream_open(stream, bytes));
  return stream;
}

// A record of any message, as its layout tells.
class Record {
 public:
  explicit Record(const MessageLayout& layout)
      : layout_(layout), memory_(new std::max_align_t[layout.record_size + 1]) {
    layout_.construct(memory_.get());
  }
  ~Record() { layout_.destroy(memory_.get()); }

  void* get() { return memory_.get(); }

  template <typename Member>
  Member& member(const FieldLayout& field) {
    return *reinterpret_cast<Member*>(reinterpret_cast<char*>(memory_.get()) +
                                      field.offset);
  }

  // Sets a field to a number, a text of so many bytes, or 2 to so many bits.
  void set(const FieldLayout& field, std::int64_t size) {
    switch (field.type) {
      case FieldType::kSigned:
        member<std::int32_t>(field) = static_cast<std::int32_t>(size);
        break;
      case FieldType::kUnsigned:
      case FieldType::kEnumerated:
        member<std::uint32_t>(field) = static_cast<std::uint32_t>(size);
        break;
      case FieldType::kBoolean:
        member<int>(field) = size != 0;
        break;
      case FieldType::kString:
        member<Text>(field) =
            copy_text(std::string(static_cast<std::size_t>(size), 'x'));
        break;
      case FieldType::kBigNum:
        member<BigNumPtr>(field) =
            bn_power_of_two(static_cast<std::uint64_t>(size));
        break;
    }
  }

  // Sets every field to a value of its own within its limits.
  void fill() {
    std::int64_t sample = 2;
    for (const FieldLayout& field : layout_.fields)
      set(field, field.type == FieldType::kBoolean ? sample % 2 : ++sample);
  }

 private:
  const MessageLayout& layout_;
  std::unique_ptr<std::max_align_t[]> memory_;
};

std::string encode(const MessageLayout& layout, Record& record,
                   const std::string& expected_error = "") {
  BerStreamPtr stream = stream_of("");
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
  BerStreamPtr definite = stream_of("");
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

INSTANTIATE_TEST_SUITE_P(Catalogue, EveryMessage,
                         testing::ValuesIn(message_catalogue().begin(),
                                           message_catalogue().end()),
                         [](const auto& row) {
                           return std::string(row.param.name);
                         });

// What the declarations cannot vouch for: the bytes that other programs know.
TEST(Messages, StandOnTheWireAsPeersExpect) {
  const struct {
    MessageId id;
    const char* head;
  } rows[] = {
      {MessageId::negotiate_ack, "62 80 00 00"},
      {MessageId::negotiate_nack, "63 80 04"},
      {MessageId::diffie_hellmann_parameters, "64 80 02"},
      {MessageId::checkin_resp, "6B 80 01"},
      {MessageId::upgrade_resp, "6D 80 02"},
      {MessageId::downtime_req, "7E 80 02"},
      {MessageId::downtime_resp, "7F 1F 80 01"},
      {MessageId::h_w_scan_resp, "7F 21 80 01"},
      {MessageId::adv_log_conf, "A4 80 04"},
      {MessageId::check_conf, "30 80 02"},
      {MessageId::rule, "30 80 04"},
  };
  for (const auto& row : rows) {
    const MessageLayout& layout =
        message_catalogue()[static_cast<std::size_t>(row.id)];
    Record record(layout);
    record.fill();
    EXPECT_EQ(hex_of(encode(layout, record)).find(row.head), 0U) << layout.name;
  }
}

TEST(Messages, FailedReadsLeaveWhatTheyReadToTheCaller) {
  negotiate_nack nack;
  EXPECT_EQ(text_of(read_negotiate_nack(
                *stream_of(bytes_of("63 80 04 02 61 62 00 01")), nack, 0)),
            "List not terminated correctly in skip_to_eol");
  EXPECT_STREQ(nack.reason.get(), "ab");
}

TEST(Messages, EnumerationsCarryAnyValue) {
  BerStreamPtr stream = stream_of("");
  std::uint32_t back = 0;
  ASSERT_FALSE(write_check_status(*stream, UINT32_MAX));
  EXPECT_FALSE(read_check_status(*stream, back, 0));
  EXPECT_EQ(back, UINT32_MAX);
}

}  // namespace
}  // namespace velprobe
