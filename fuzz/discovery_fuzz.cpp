// The check of a discovery answer against the words that it asks for.
#include "fuzz.h"
#include "probe/discovery_datagram.h"

namespace velprobe {

void fuzz_one(Input input) {
  using namespace std::string_view_literals;
  const std::string_view bytes = input.bytes;
  const bool answers = bytes.size() >= 16 &&
                       bytes.substr(0, 4) == "\x12\x34\x56\x78"sv &&
                       bytes.substr(8, 8) == "\0\0\0\5\0\0\0\2"sv;
  REQUIRE(is_discovery_answer(data_of(bytes), bytes.size()) == answers);
  REQUIRE(!answers || !is_discovery_query(data_of(bytes), bytes.size()));
}

void make_seeds() {
  for (const DiscoveryDatagram& datagram :
       {build_discovery_query(), build_discovery_answer()}) {
    add_seed({reinterpret_cast<const char*>(datagram.data()), datagram.size()});
  }
}

}  // namespace velprobe
