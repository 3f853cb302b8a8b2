// The settings of the configuration file that this program knows.
#ifndef VELPROBE_CONFIG_CONFIG_KEYS_H_
#define VELPROBE_CONFIG_CONFIG_KEYS_H_

#include "../util/text.h"

namespace velprobe {

// ConfigKey is one entry of a list of known keys. value is absent (null) until
// it is read or set; an empty text is a value.
struct ConfigKey {
  const char* key;
  Text value;
  ConfigKey* next;
};

// Where a ConfigKeyList holds what.
enum ConfigKeyPosition {
  kDomainKey,
  kNameKey,
  kServerPortKey,
  kServerListKey,
  kNumConfigKeys
};

// ConfigKeyList is the list of all known keys, linked in the order of
// positions. It stays where it is made, since its entries point at each other.
class ConfigKeyList {
 public:
  ConfigKeyList() = default;
  ConfigKeyList(const ConfigKeyList&) = delete;
  ConfigKeyList& operator=(const ConfigKeyList&) = delete;

  ConfigKey* head() { return keys_; }
  Text& operator[](ConfigKeyPosition key) { return keys_[key].value; }

 private:
  ConfigKey keys_[kNumConfigKeys] = {
      {"domain", nullptr, &keys_[kNameKey]},
      {"name", nullptr, &keys_[kServerPortKey]},
      {"server_port", nullptr, &keys_[kServerListKey]},
      {"server_list", nullptr, nullptr},
  };
};

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_CONFIG_KEYS_H_
