#include "settings.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "../util/owners.h"
#include "assignments.h"
#include "config_file.h"
#include "config_keys.h"

namespace velprobe {

ErrorText read_settings(const char* path, AgentSettings& out_settings) {
  const FileDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return could_not_open(path, take_last_os_error());
  ByteBuffer bytes;
  if (int error = read_whole(file.get(), bytes)) {
    return could_not_open(path, error);
  }
  return parse_settings(bytes.view(), out_settings);
}

ErrorText parse_settings(std::string_view bytes, AgentSettings& out_settings) {
  ConfigKeyList keys;
  if (ErrorText error = take_values(bytes, keys.head())) return error;
  out_settings = {std::move(keys[kDomainKey]), std::move(keys[kNameKey]),
                  std::move(keys[kServerPortKey]),
                  std::move(keys[kServerListKey])};
  return {};
}

std::uint16_t parse_server_port(const char* text, std::uint16_t default_port) {
  if (text == nullptr) return default_port;
  return static_cast<std::uint16_t>(std::strtol(text, nullptr, 0));
}

Text split_server_list(const char* list) {
  const std::string_view names = list != nullptr ? list : "";
  Text split = new_text(names.size() + 1);
  if (!split) return nullptr;
  std::replace_copy(names.begin(), names.end(), split.get(), ',', '\0');
  return split;
}

}  // namespace velprobe
