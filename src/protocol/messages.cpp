#include "messages.h"

#include <cstddef>
#include <memory>

#include "ber_codec.h"

namespace velprobe {
namespace {

template <typename Record>
void construct_record(void* record) {
  std::construct_at(static_cast<Record*>(record));
}

template <typename Record>
void destroy_record(void* record) {
  std::destroy_at(static_cast<Record*>(record));
}

void no_record(void*) {}

// The fields of each message, in a scope of its own.
#define CLOSED_MESSAGE(name, tag) \
  namespace name##_layout {       \
    using Record = name;          \
    constexpr FieldLayout kFields[] = {
#define OPEN_MESSAGE(name, tag) CLOSED_MESSAGE(name, tag)
#define FIELD(field, type, min, max)                                           \
  {#field, FieldType::type,                                                    \
   [](void* record) -> void* { return &static_cast<Record*>(record)->field; }, \
   min, max},
#define INT_FIELD(field, min, max) FIELD(field, kSigned, min, max)
#define UNSIGNED_FIELD(field, min, max) FIELD(field, kUnsigned, min, max)
#define STRING_FIELD(field, max) FIELD(field, kString, 0, max)
#define BOOLEAN_FIELD(field) FIELD(field, kBoolean, 0, 1)
#define ENUM_FIELD(field, type) FIELD(field, kEnumerated, 0, UINT32_MAX)
#define BIGNUM_FIELD(field) FIELD(field, kBigNum, 0, 0)
#define END_MESSAGE \
  }                 \
  ;                 \
  }
#include "messages.def"
#undef FIELD

constexpr MessageLayout kCatalogue[] = {
#define RECORD_MESSAGE(name, tag, kind) \
  {#name,                               \
   tag,                                 \
   MessageKind::kind,                   \
   name##_layout::kFields,              \
   sizeof(name),                        \
   construct_record<name>,              \
   destroy_record<name>},
#define EMPTY_MESSAGE(name, tag, kind) \
  {#name, tag, MessageKind::kind, {}, 0, no_record, no_record},
#define CLOSED_MESSAGE(name, tag) RECORD_MESSAGE(name, tag, kClosed)
#define OPEN_MESSAGE(name, tag) RECORD_MESSAGE(name, tag, kOpen)
#define EMPTY_CLOSED_MESSAGE(name, tag) EMPTY_MESSAGE(name, tag, kClosed)
#define EMPTY_OPEN_MESSAGE(name, tag) EMPTY_MESSAGE(name, tag, kOpen)
#include "messages.def"
#undef EMPTY_MESSAGE
#undef RECORD_MESSAGE
};

constexpr const MessageLayout& layout_of(MessageId id) {
  return kCatalogue[static_cast<std::size_t>(id)];
}

}  // namespace

#define WRITE_RECORD(name)                                             \
  ErrorText write_##name(BerStream& stream, const name& record) {      \
    return write_message(stream, layout_of(MessageId::name), &record); \
  }
#define READ_RECORD(name, reader)                                              \
  ErrorText reader(BerStream& stream, name& record, std::uint32_t known_tag) { \
    return read_message(stream, layout_of(MessageId::name), &record,           \
                        known_tag);                                            \
  }
#define WRITE_EMPTY(name)                                              \
  ErrorText write_##name(BerStream& stream) {                          \
    return write_message(stream, layout_of(MessageId::name), nullptr); \
  }
#define READ_EMPTY(name, reader)                                     \
  ErrorText reader(BerStream& stream, std::uint32_t known_tag) {     \
    return read_message(stream, layout_of(MessageId::name), nullptr, \
                        known_tag);                                  \
  }
#define CLOSED_MESSAGE(name, tag) \
  WRITE_RECORD(name)              \
  READ_RECORD(name, read_##name)
#define OPEN_MESSAGE(name, tag) \
  WRITE_RECORD(name)            \
  READ_RECORD(name, read_##name##_incomplete)
#define EMPTY_CLOSED_MESSAGE(name, tag) \
  WRITE_EMPTY(name)                     \
  READ_EMPTY(name, read_##name)
#define EMPTY_OPEN_MESSAGE(name, tag) \
  WRITE_EMPTY(name)                   \
  READ_EMPTY(name, read_##name##_incomplete)
#define ENUMERATION(type)                                                \
  ErrorText write_##type(BerStream& stream, std::uint32_t value) {       \
    return write_enumerated(stream, value, BE_ENUMERATED);               \
  }                                                                      \
  ErrorText read_##type(BerStream& stream, std::uint32_t& out_value,     \
                        std::uint32_t known_tag) {                       \
    return read_enumerated(stream, out_value, BE_ENUMERATED, known_tag); \
  }
#include "messages.def"
#undef READ_EMPTY
#undef WRITE_EMPTY
#undef READ_RECORD
#undef WRITE_RECORD

std::span<const MessageLayout> message_catalogue() {
  return kCatalogue;
}

}  // namespace velprobe
