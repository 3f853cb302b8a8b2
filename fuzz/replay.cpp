// Runs a fuzz target without libFuzzer, by any compiler: the seeds that it
// makes, then every file of the folder of past findings. The input that breaks
// it is the last one shown.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// What libFuzzer calls.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size);

namespace {

namespace fs = std::filesystem;

// Runs the files of a folder; a folder that is not there has none.
int replay(const fs::path& folder) {
  int count = 0;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) {
    std::printf("%s\n", entry.path().c_str());
    std::fflush(stdout);
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                           bytes.size());
    ++count;
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const fs::path findings = fs::absolute(argv[1]);
  // The target writes its seeds into the folder, and works beside them.
  std::string folder = fs::temp_directory_path() / "velprobe-fuzz-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) return 1;
  const fs::path seeds = fs::path(folder) / "seeds";
  fs::create_directory(seeds);
  fs::current_path(folder);

  std::string last = seeds;
  char* arguments[] = {argv[0], last.data(), nullptr};
  char** given = arguments;
  int num_given = 2;
  LLVMFuzzerInitialize(&num_given, &given);
  const bool has_seeds = replay(seeds) > 0;
  replay(findings);
  fs::remove_all(folder);
  // A target without seeds would pass with nothing tried.
  return has_seeds ? 0 : 1;
}
