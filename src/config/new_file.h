// The temporary file while a rewrite fills it.
#ifndef VELPROBE_CONFIG_NEW_FILE_H_
#define VELPROBE_CONFIG_NEW_FILE_H_

#include <sys/types.h>

#include <string_view>

#include "../util/error_text.h"
#include "../util/owners.h"
#include "config_file.h"
#include "config_paths.h"

namespace velprobe {

// NewFile is locked for as long as it is open, from its first moment under the
// temporary name to after its last: who finds it so leaves it alone. Writes go
// straight to the system: there are only a few, each of them long or the last
// ones.
struct NewFile {
  const ConfigPaths* paths;
  const OldFile* old;  // null: none to take after
  FileDescriptor descriptor = {};
  // Permission bits to end with.
  mode_t mode = 0;
  bool has_group = false;  // the old one's
};

// create_new_file creates the temporary file, which must not exist, and gives
// it the old one's owner and group as far as the process may. Nobody but the
// owner may read it until it is finished, when there is an old one.
//
// Failure: error_opening's text.
ErrorText create_new_file(NewFile& file);

// write_bytes writes all of bytes.
//
// Failure: "Error writing to %s: %s" (temporary file, system's text).
ErrorText write_bytes(const NewFile& file, std::string_view bytes);

// finish_new_file gives the file the old one's access list, security label and
// permission bits without any set-ID bit, and brings it to the disk. When the
// group cannot be kept, nobody gets in by the bits that were for it; when a
// list cannot, nobody but the owner gets in.
//
// Failure: "Error writing to %s: %s" (temporary file, system's text).
ErrorText finish_new_file(NewFile& file);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_NEW_FILE_H_
