// Every reader of the codec and both skippers on any bytes. What was read must
// write, and read and write again to the same bytes.
#include "fuzz.h"
#include "protocol/ber_codec.h"

namespace velprobe {
namespace {

// One kind of value: fresh for its reader, example for a seed.
struct Value {
  std::uint32_t number = 70;
  std::int32_t integer = -70000;
  int flag = 1;
  double real = -1.5e-300;
  bool indefinite = false;
  Text text = copy_text("text");
  BigNumPtr big = bn_power_of_two(700);
};

struct Codec {
  ErrorText (*read)(BerStream& stream, Value& value);
  ErrorText (*write)(BerStream& stream, const Value& value);
};

#define CODEC(reading, writing)                                               \
  {                                                                           \
    [](BerStream& s, [[maybe_unused]] Value& v) { return reading; },          \
        [](BerStream& s, [[maybe_unused]] const Value& v) { return writing; } \
  }

constexpr Codec kCodecs[] = {
    CODEC(read_tag(s, v.number), write_tag(s, v.number)),
    CODEC(
        read_length(s, v.number, v.indefinite),
        v.indefinite ? write_indefinite_length(s) : write_length(s, v.number)),
    CODEC(read_unsigned_int(s, 3, 3000000000, v.number, 0),
          write_unsigned_int(s, 3, 3000000000, v.number)),
    CODEC(read_signed_int(s, -70000, 70000, v.integer, 0),
          write_signed_int(s, -70000, 70000, v.integer)),
    CODEC(read_enumerated(s, v.number, 80, 0),
          write_enumerated(s, v.number, 80)),
    CODEC(read_bool(s, v.flag, 0), write_bool(s, v.flag)),
    CODEC(read_string(s, 64, v.text, 0), write_string(s, 64, v.text.get())),
    CODEC(read_real(s, v.real, 0), write_real(s, v.real)),
    CODEC(read_null(s, 0), write_null(s)),
    // Longer ones are read, but not written.
    CODEC(read_bignum(s, v.big, 0),
          write_bignum(s, v.big->len > 35 ? nullptr : v.big.get())),
    CODEC(skip_value(s, 0), write_null(s)),
    CODEC(skip_to_eol(s), write_end_of_contents(s)),
};

std::string written(const Codec& codec, const Value& value) {
  const BerStreamPtr stream = stream_of("");
  REQUIRE(!codec.write(*stream, value));
  return std::string(memory_stream_bytes(*stream));
}

}  // namespace

void fuzz_one(Input input) {
  const Codec& codec = kCodecs[input.byte() % std::size(kCodecs)];
  Value value;
  const BerStreamPtr stream = stream_of(input.bytes);
  if (codec.read(*stream, value)) return;
  const std::string bytes = written(codec, value);
  const BerStreamPtr copy = stream_of(bytes);
  // Filler is passed over, also where it is written as a tag.
  if (codec.read(*copy, value)) return REQUIRE(value.number == 200);
  REQUIRE(written(codec, value) == bytes);
}

void make_seeds() {
  std::string all;
  for (const Codec& codec : kCodecs) {
    const std::string bytes = written(codec, {});
    const char index = static_cast<char>(&codec - kCodecs);
    add_seed(index + bytes);
    if (index > 1) all += bytes;
  }
  add_seed("\x0A\x30\x80" + all);
  add_seed("\x0B" + all);
}

}  // namespace velprobe
