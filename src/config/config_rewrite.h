// The write half of process_config_file.
#ifndef VELPROBE_CONFIG_CONFIG_REWRITE_H_
#define VELPROBE_CONFIG_CONFIG_REWRITE_H_

#include "../util/error_text.h"
#include "config_keys.h"

namespace velprobe {

// rewrite_config_file does what process_config_file says of rewriting.
ErrorText rewrite_config_file(const char* path, ConfigKey* keys);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_CONFIG_REWRITE_H_
