// Every message: the first byte picks it, the others are what arrives. What was
// read must write, and read and write again to the same bytes.
#include "../tests/support/record.h"
#include "fuzz.h"

namespace velprobe {
namespace {

// Empty when a big number is longer than a message may carry.
std::string written(const MessageLayout& layout, const Record& record) {
  const BerStreamPtr stream = stream_of("");
  if (ErrorText error = write_message(*stream, layout, record.get())) {
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
  if (read_message(*stream, layout, first.get(), 0)) return;

  const std::string bytes = written(layout, first);
  if (bytes.empty()) return;
  Record second(layout);
  const BerStreamPtr copy = stream_of(bytes);
  REQUIRE(!read_message(*copy, layout, second.get(), 0));
  REQUIRE(memory_stream_bytes(*copy).empty());
  REQUIRE(written(layout, second) == bytes);
}

void make_seeds() {
  const auto catalogue = message_catalogue();
  for (std::size_t i = 0; i < catalogue.size(); ++i) {
    Record record(catalogue[i]);
    record.fill();
    add_seed(static_cast<char>(i) + written(catalogue[i], record));
  }
}

}  // namespace velprobe
