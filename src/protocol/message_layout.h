// How a message is described, and the one writer and reader that serve them
// all.
#ifndef VELPROBE_PROTOCOL_MESSAGE_LAYOUT_H_
#define VELPROBE_PROTOCOL_MESSAGE_LAYOUT_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "../util/error_text.h"
#include "ber_stream.h"

#pragma GCC visibility push(default)
namespace velprobe {

enum class FieldType {
  kSigned,      // std::int32_t within minimum and maximum
  kUnsigned,    // std::uint32_t within minimum and maximum
  kEnumerated,  // std::uint32_t, any value
  kBoolean,     // int, 0 or 1
  kString,      // Text of at most maximum bytes
  kBigNum,      // BigNumPtr
};

// FieldLayout describes one field of a message.
struct FieldLayout {
  const char* name;
  FieldType type;
  // member gives the address of the field's member in a record.
  void* (*member)(void* record);
  std::int64_t minimum;
  std::int64_t maximum;
};

enum class MessageKind {
  kClosed,  // written and read as a whole
  kOpen,    // only the head: the caller goes on inside it
};

// MessageLayout describes one message. A message without fields has no record:
// its record_size, in bytes, is 0.
struct MessageLayout {
  const char* name;
  std::uint32_t tag;
  MessageKind kind;
  std::span<const FieldLayout> fields;
  std::size_t record_size;
  // Construct a record in suitable memory, all fields zero or absent, and
  // release what it holds.
  void (*construct)(void* record);
  void (*destroy)(void* record);
};

// write_message writes tag, indefinite length and fields, and closes a closed
// message.
//   "client_private_key.domain: %s", by the names of message and field: a text
//   of the codec's writer for the field
//   the stream's texts
ErrorText write_message(BerStream& stream, const MessageLayout& layout,
                        const void* record);

// read_message reads what write_message writes; unknown fields at the end of a
// closed message are passed over. tag is the message's tag if the caller has
// read it, else 0. Fields read before a failure stay in the record.
//   "Wrong tag (%d) encountered in read_NAME": "read_NAME_incomplete" for an
//   open message
//   "Definite length read in read_NAME": likewise
//   a field's failure, labelled as in write_message
//   the texts of skip_to_eol
ErrorText read_message(BerStream& stream, const MessageLayout& layout,
                       void* record, std::uint32_t tag);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_MESSAGE_LAYOUT_H_
