// The configuration file as bytes, and the two files beside it.
#ifndef VELPROBE_CONFIG_CONFIG_FILE_H_
#define VELPROBE_CONFIG_CONFIG_FILE_H_

#include "../util/byte_buffer.h"
#include "../util/error_text.h"
#include "../util/owners.h"
#include "../util/text.h"

namespace velprobe {

// FileUse is what a file is loaded for. Those who only read may do so together.
enum class FileUse { kRead, kRewrite };

// LoadedFile is what load_config_file found: open_error is 0, or the number
// with which the system refused to open the file.
struct LoadedFile {
  // Holds the lock; another process waits for its end.
  FileDescriptor descriptor;
  int open_error = 0;
  // Nobody else who asks for the lock is about to replace the file.
  bool is_locked = false;
  ByteBuffer bytes;
};

// load_config_file locks (flock) and reads the whole file. For a rewrite it
// waits up to five seconds for the lock; without one the file is read all the
// same. A file that cannot be opened is no failure here: the caller looks at
// open_error.
//
// Failure: could_not_open's text, for a read error, short memory and a file of
// more than 64 MiB.
ErrorText load_config_file(const char* path, FileUse use, LoadedFile* out);

// read_whole appends everything up to the end of a file, pipe or device.
// Returns 0 or a system error number, EFBIG after 64 MiB.
int read_whole(int descriptor, ByteBuffer& bytes);

// could_not_open gives "Could not open configuration file %s: %s" with the
// system's text for the number.
ErrorText could_not_open(const char* path, int error_number);

// SideFiles names the temporary file and the backup of a configuration file.
struct SideFiles {
  char temp[256];
  char backup[256];
  // The names got cut until one of them is the other one or the path.
  bool collide;
};

SideFiles name_side_files(const char* path);

// delete_side_files deletes both, as far as they exist and do not collide.
void delete_side_files(const SideFiles& side);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_CONFIG_FILE_H_
