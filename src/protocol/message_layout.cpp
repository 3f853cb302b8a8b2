#include "message_layout.h"

#include "../util/text.h"
#include "ber_codec.h"

namespace velprobe {
namespace {

// The member of a record that a field describes.
template <typename Member>
Member& member_of(void* record, const FieldLayout& field) {
  return *static_cast<Member*>(field.member(record));
}

template <typename Member>
const Member& member_of(const void* record, const FieldLayout& field) {
  // The accessor itself only forms an address.
  return *static_cast<const Member*>(field.member(const_cast<void*>(record)));
}

ErrorText write_field(BerStream& stream, const FieldLayout& field,
                      const void* record) {
  switch (field.type) {
    case FieldType::kSigned:
      return write_signed_int(stream, static_cast<std::int32_t>(field.minimum),
                              static_cast<std::int32_t>(field.maximum),
                              member_of<std::int32_t>(record, field));
    case FieldType::kUnsigned:
      return write_unsigned_int(stream,
                                static_cast<std::uint32_t>(field.minimum),
                                static_cast<std::uint32_t>(field.maximum),
                                member_of<std::uint32_t>(record, field));
    case FieldType::kEnumerated:
      return write_enumerated(stream, member_of<std::uint32_t>(record, field),
                              BE_ENUMERATED);
    case FieldType::kBoolean:
      return write_bool(stream, member_of<int>(record, field));
    case FieldType::kString:
      return write_string(stream, static_cast<std::uint32_t>(field.maximum),
                          member_of<Text>(record, field).get());
    case FieldType::kBigNum:
      return write_bignum(stream, member_of<BigNumPtr>(record, field).get());
  }
  return {};
}

ErrorText read_field(BerStream& stream, const FieldLayout& field,
                     void* record) {
  switch (field.type) {
    case FieldType::kSigned:
      return read_signed_int(stream, static_cast<std::int32_t>(field.minimum),
                             static_cast<std::int32_t>(field.maximum),
                             member_of<std::int32_t>(record, field), 0);
    case FieldType::kUnsigned:
      return read_unsigned_int(stream,
                               static_cast<std::uint32_t>(field.minimum),
                               static_cast<std::uint32_t>(field.maximum),
                               member_of<std::uint32_t>(record, field), 0);
    case FieldType::kEnumerated:
      return read_enumerated(stream, member_of<std::uint32_t>(record, field),
                             BE_ENUMERATED, 0);
    case FieldType::kBoolean:
      return read_bool(stream, member_of<int>(record, field), 0);
    case FieldType::kString:
      return read_string(stream, static_cast<std::uint32_t>(field.maximum),
                         member_of<Text>(record, field), 0);
    case FieldType::kBigNum:
      return read_bignum(stream, member_of<BigNumPtr>(record, field), 0);
  }
  return {};
}

ErrorText field_failure(const MessageLayout& layout, const FieldLayout& field,
                        ErrorText error) {
  return error.wrapped(
      format_error_text("%s.%s: %s", layout.name, field.name, error.c_str()));
}

const char* reader_suffix(const MessageLayout& layout) {
  return layout.kind == MessageKind::kOpen ? "_incomplete" : "";
}

}  // namespace

ErrorText write_message(BerStream& stream, const MessageLayout& layout,
                        const void* record) {
  if (ErrorText error = write_constructed_begin(stream, layout.tag)) {
    return error;
  }
  for (const FieldLayout& field : layout.fields) {
    if (ErrorText error = write_field(stream, field, record)) {
      return field_failure(layout, field, error);
    }
  }
  if (layout.kind == MessageKind::kOpen) return {};
  return write_end_of_contents(stream);
}

ErrorText read_message(BerStream& stream, const MessageLayout& layout,
                       void* record, std::uint32_t tag) {
  if (tag == 0) {
    if (ErrorText error = read_tag(stream, tag)) return error;
  }
  if (tag != layout.tag) {
    return format_error_text("Wrong tag (%d) encountered in read_%s%s",
                             static_cast<int>(tag), layout.name,
                             reader_suffix(layout));
  }
  std::uint32_t length = 0;
  bool indefinite = false;
  if (ErrorText error = read_length(stream, length, indefinite)) return error;
  if (!indefinite) {
    return format_error_text("Definite length read in read_%s%s", layout.name,
                             reader_suffix(layout));
  }
  for (const FieldLayout& field : layout.fields) {
    if (ErrorText error = read_field(stream, field, record)) {
      return field_failure(layout, field, error);
    }
  }
  if (layout.kind == MessageKind::kOpen) return {};
  return skip_to_eol(stream);
}

}  // namespace velprobe
