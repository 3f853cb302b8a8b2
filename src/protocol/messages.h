// Every message of the agent protocol. All of this follows from messages.def,
// which is the place to read and to extend; the declaration
//
//   CLOSED_MESSAGE(server_name_port, 129)
//     STRING_FIELD(name, 256)
//     INT_FIELD(port, 1, 65535)
//   END_MESSAGE
//
// becomes
//
//   struct server_name_port {
//     Text name;
//     std::int32_t port = 0;
//   };
//   ErrorText write_server_name_port(BerStream& stream,
//                                    const server_name_port& record);
//   ErrorText read_server_name_port(BerStream& stream,
//                                   server_name_port& record,
//                                   std::uint32_t known_tag);
//
// The reader of an open message is called read_NAME_incomplete. A message
// without fields has no record and its functions take none. A record owns its
// texts and numbers; what a failed read had already stored stays in it.
// write_message and read_message (message_layout.h) tell the error texts.
//
// known_tag is the tag that the caller has already read, or 0 when the reader
// is to read it. An end-of-contents reads as 0 too: compare a tag with
// kTagOf_NAME before you hand it on.
#ifndef VELPROBE_PROTOCOL_MESSAGES_H_
#define VELPROBE_PROTOCOL_MESSAGES_H_

#include <cstdint>
#include <span>

#include "../modules/Crypto/bignum.h"
#include "../util/error_text.h"
#include "../util/text.h"
#include "ber_stream.h"
#include "message_layout.h"

#pragma GCC visibility push(default)
namespace velprobe {

// The records.
#define CLOSED_MESSAGE(name, tag) struct name {
#define OPEN_MESSAGE(name, tag) struct name {
#define INT_FIELD(field, min, max) std::int32_t field = 0;
#define UNSIGNED_FIELD(field, min, max) std::uint32_t field = 0;
#define STRING_FIELD(field, max) Text field;
#define BOOLEAN_FIELD(field) int field = 0;
#define ENUM_FIELD(field, type) std::uint32_t field = 0;
#define BIGNUM_FIELD(field) BigNumPtr field;
#define END_MESSAGE \
  }                 \
  ;
#include "messages.def"

// Writers and readers.
#define CLOSED_MESSAGE(name, tag)                                \
  ErrorText write_##name(BerStream& stream, const name& record); \
  ErrorText read_##name(BerStream& stream, name& record,         \
                        std::uint32_t known_tag);
#define OPEN_MESSAGE(name, tag)                                       \
  ErrorText write_##name(BerStream& stream, const name& record);      \
  ErrorText read_##name##_incomplete(BerStream& stream, name& record, \
                                     std::uint32_t known_tag);
#define EMPTY_CLOSED_MESSAGE(name, tag)      \
  ErrorText write_##name(BerStream& stream); \
  ErrorText read_##name(BerStream& stream, std::uint32_t known_tag);
#define EMPTY_OPEN_MESSAGE(name, tag)                   \
  ErrorText write_##name(BerStream& stream);            \
  ErrorText read_##name##_incomplete(BerStream& stream, \
                                     std::uint32_t known_tag);
// One pair for each enumeration type; any unsigned 32-bit value is carried.
#define ENUMERATION(type)                                            \
  ErrorText write_##type(BerStream& stream, std::uint32_t value);    \
  ErrorText read_##type(BerStream& stream, std::uint32_t& out_value, \
                        std::uint32_t known_tag);
#include "messages.def"

// MessageId numbers the messages in the order of messages.def.
enum class MessageId : std::uint32_t {
#define CLOSED_MESSAGE(name, tag) name,
#define OPEN_MESSAGE(name, tag) name,
#define EMPTY_CLOSED_MESSAGE(name, tag) name,
#define EMPTY_OPEN_MESSAGE(name, tag) name,
#include "messages.def"
};

// The tag value of each message, as in kTagOf_server_offers.
#define CLOSED_MESSAGE(name, tag) \
  inline constexpr std::uint32_t kTagOf_##name = tag;
#define OPEN_MESSAGE(name, tag) \
  inline constexpr std::uint32_t kTagOf_##name = tag;
#define EMPTY_CLOSED_MESSAGE(name, tag) \
  inline constexpr std::uint32_t kTagOf_##name = tag;
#define EMPTY_OPEN_MESSAGE(name, tag) \
  inline constexpr std::uint32_t kTagOf_##name = tag;
#include "messages.def"

// message_catalogue lists the layouts of all messages, indexed by MessageId.
std::span<const MessageLayout> message_catalogue();

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_MESSAGES_H_
