// A record of any message, as its layout tells.
#ifndef VELPROBE_TESTS_RECORD_H_
#define VELPROBE_TESTS_RECORD_H_

#include <cstddef>
#include <memory>
#include <string>

#include "protocol/messages.h"

namespace velprobe {

class Record {
 public:
  explicit Record(const MessageLayout& layout)
      : layout_(layout),
        memory_(
            new std::max_align_t[layout.record_size / sizeof(std::max_align_t) +
                                 1]) {
    layout_.construct(memory_.get());
  }
  ~Record() { layout_.destroy(memory_.get()); }

  void* get() const { return memory_.get(); }

  template <typename Member>
  Member& member(const FieldLayout& field) {
    return *static_cast<Member*>(field.member(memory_.get()));
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

  // Sets every field to a value of its own, within its limits unless the first
  // is high.
  void fill(std::int64_t sample = 2) {
    for (const FieldLayout& field : layout_.fields) {
      set(field, field.type == FieldType::kBoolean ? sample % 2 : ++sample);
    }
  }

 private:
  const MessageLayout& layout_;
  std::unique_ptr<std::max_align_t[]> memory_;
};

}  // namespace velprobe

#endif  // VELPROBE_TESTS_RECORD_H_
