// A configuration file is read, rewritten with other values and read again;
// with the first values put back it is what it was, to the byte.
#include <iterator>
#include <optional>
#include <vector>

#include "config/agent_config.h"
#include "fuzz.h"

namespace velprobe {
namespace {

// In the folder that scripts/fuzz.sh runs it in.
constexpr const char* kPath = "agent.conf";

std::string file_bytes() {
  std::ifstream file(kPath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The values of all known keys, in the list's order.
using Values = std::vector<std::optional<std::string>>;

// process runs an operation on values and leaves the list's new ones in them.
bool process(ConfigMode mode, Values& values) {
  ConfigKeyList keys;
  std::size_t i = 0;
  for (ConfigKey* key = keys.head(); key; key = key->next, ++i)
    key->value = values[i] ? copy_text(*values[i]) : nullptr;
  if (process_config_file(kPath, keys.head(), mode)) return false;
  i = 0;
  for (ConfigKey* key = keys.head(); key; key = key->next, ++i) {
    values[i].reset();
    if (key->value) values[i] = key->value.get();
  }
  return true;
}

}  // namespace

void fuzz_one(Input input) {
  const std::string before(input.bytes);
  std::ofstream(kPath, std::ios::binary) << before;
  Values old(kNumConfigKeys);
  REQUIRE(process(ConfigMode::kRead, old));
  REQUIRE(file_bytes() == before);

  Values other = old;
  for (auto& value : other)
    if (value) value = value->empty() ? "filled" : "";
  const Values wanted = other;
  // It refuses when a key stands there twice.
  if (!process(ConfigMode::kWrite, other))
    return REQUIRE(file_bytes() == before);
  // Every value found its line.
  REQUIRE(other == Values(kNumConfigKeys));
  // A value that ends at the limit of a line runs on into the next.
  if (before.size() > 500) return;
  REQUIRE(process(ConfigMode::kRead, other));
  REQUIRE(other == wanted);
  other = old;
  REQUIRE(process(ConfigMode::kWrite, other));
  REQUIRE(file_bytes() == before);
}

void make_seeds() {
  add_seed("# mine\r\n server_list = a,b \r\nname=\tn\nother = 1\ndomain=.");
  add_seed("server_port=0x10\n=\n#name=a\nname=a\nname=b\n");
  add_seed(std::string("name=a\0b\n", 9) + std::string(600, 'x') + "=\n");
}

}  // namespace velprobe
