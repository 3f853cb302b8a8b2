// Every message: the first byte picks it, the others are what arrives. What was
// read must write, and read and write again to the same bytes.
#include <vector>

#include "fuzz.h"
#include "protocol/messages.h"

namespace velprobe {
namespace {

struct Record {
  explicit Record(const MessageLayout& message)
      : layout(message), memory(message.record_size / 8 + 1) {
    layout.construct(memory.data());
  }
  Record(const Record&) = delete;
  ~Record() { layout.destroy(memory.data()); }

  const MessageLayout& layout;
  std::vector<std::uint64_t> memory;
};

// Empty when a big number is longer than a message may carry.
std::string written(const Record& record) {
  const BerStreamPtr stream = stream_of("");
  if (ErrorText error =
          write_message(*stream, record.layout, record.memory.data())) {
    const std::string_view text = error.c_str();
    REQUIRE(text.ends_with("Buffer given to bn_get_data is too small"));
    return "";
  }
  return std::string(memory_stream_bytes(*stream));
}

}  // namespace

void fuzz_one(Input input) {
  const auto catalogue = message_catalogue();
  const MessageLayout& layout = catalogue[input.byte() % catalogue.size()];
  Record first(layout);
  const BerStreamPtr stream = stream_of(input.bytes);
  if (read_message(*stream, layout, first.memory.data(), 0)) return;

  const std::string bytes = written(first);
  if (bytes.empty()) return;
  Record second(layout);
  const BerStreamPtr copy = stream_of(bytes);
  REQUIRE(!read_message(*copy, layout, second.memory.data(), 0));
  REQUIRE(memory_stream_bytes(*copy).empty());
  REQUIRE(written(second) == bytes);
}

void make_seeds() {
  const auto catalogue = message_catalogue();
  for (std::size_t i = 0; i < catalogue.size(); ++i) {
    Record record(catalogue[i]);
    for (const FieldLayout& field : catalogue[i].fields) {
      char* const member =
          reinterpret_cast<char*>(record.memory.data()) + field.offset;
      if (field.type == FieldType::kSigned)
        *reinterpret_cast<std::int32_t*>(member) =
            static_cast<std::int32_t>(field.maximum);
      if (field.type == FieldType::kString)
        *reinterpret_cast<Text*>(member) = copy_text(field.name);
      if (field.type == FieldType::kBigNum)
        *reinterpret_cast<BigNumPtr*>(member) = bn_power_of_two(1024);
    }
    add_seed(static_cast<char>(i) + written(record));
  }
}

}  // namespace velprobe
