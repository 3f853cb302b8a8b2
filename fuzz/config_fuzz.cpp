// A configuration file is read, rewritten with other values while the system
// fails it as the input says, and read again; with the first values put back it
// is what it was, to the byte. Nothing is ever lost.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <optional>
#include <vector>

#include "config/agent_config.h"
#include "fuzz.h"

// The lowest bit tells whether the next of these calls fails.
static std::uint32_t failures;

#define SCRIPTED(name, number, parameters, ...)            \
  extern "C" int name parameters noexcept {                \
    const bool fails = (failures & 1) != 0;                \
    failures >>= 1;                                        \
    if (fails) return errno = EIO, -1;                     \
    return static_cast<int>(syscall(number, __VA_ARGS__)); \
  }

SCRIPTED(unlinkat, SYS_unlinkat, (int a, const char* b, int c), a, b, c)
SCRIPTED(renameat, SYS_renameat, (int a, const char* b, int c, const char* d),
         a, b, c, d)
SCRIPTED(fchown, SYS_fchown, (int a, uid_t b, gid_t c), a, b, c)
SCRIPTED(fchmod, SYS_fchmod, (int a, mode_t b), a, b)
SCRIPTED(flock, SYS_flock, (int a, int b), a, b)

namespace velprobe {
namespace {

// In the folder that scripts/fuzz.sh runs it in.
constexpr const char* kPath = "agent.conf";
constexpr const char* kTemp = "agent.conf.tmp";
constexpr const char* kBackup = "agent.conf.bak";

std::string file_bytes(const char* path = kPath) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The values of all known keys, in the list's order.
using Values = std::vector<std::optional<std::string>>;

// process runs an operation on values and leaves the list's new ones in them.
bool process(ConfigMode mode, Values& values) {
  ConfigKeyList keys;
  std::size_t i = 0;
  for (ConfigKey* key = keys.head(); key; key = key->next, ++i) {
    key->value = values[i] ? copy_text(*values[i]) : nullptr;
  }
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
  std::uint32_t script = 0;
  for (int i = 0; i < 4; ++i) script = script << 8 | input.byte();
  const std::string before(input.bytes);
  std::ofstream(kPath, std::ios::binary) << before;
  Values old(kNumConfigKeys);
  REQUIRE(process(ConfigMode::kRead, old));
  REQUIRE(file_bytes() == before);

  Values other = old;
  for (auto& value : other) {
    if (value) value = value->empty() ? "filled" : "";
  }
  const Values wanted = other;
  failures = script;
  const bool is_rewritten = process(ConfigMode::kWrite, other);
  failures = 0;
  if (!is_rewritten) {
    // Also when a key stands there twice.
    REQUIRE(file_bytes() == before ||
            (file_bytes(kBackup) == before && !file_bytes(kTemp).empty()));
    return;
  }
  REQUIRE(file_bytes(kBackup) == before);
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
  const std::string untroubled(4, '\0');
  add_seed(untroubled +
           "# mine\r\n server_list = a,b \r\nname=\tn\nother = 1\ndomain=.");
  add_seed(untroubled + "server_port=0x10\n=\n#name=a\nname=a\nname=b\n");
  add_seed(untroubled + std::string("name=a\0b\n", 9) + std::string(600, 'x') +
           "=\n");
  // The second and the third rename.
  add_seed(std::string("\0\0\1\x80", 4) + "name=a\n");
}

}  // namespace velprobe
