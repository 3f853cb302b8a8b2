// A folder of its own for a test, removed with all it holds at the end.
#ifndef VELPROBE_TESTS_TEMP_FOLDER_H_
#define VELPROBE_TESTS_TEMP_FOLDER_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

class TempFolder {
 public:
  TempFolder() {
    path_ = std::filesystem::temp_directory_path() / "velprobe-test-XXXXXX";
    EXPECT_NE(mkdtemp(path_.data()), nullptr);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }

  // write makes a file and returns its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }

  // read gives a file's bytes, nothing when there is no such file.
  std::optional<std::string> read(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

 private:
  std::string path_;
};

#endif  // VELPROBE_TESTS_TEMP_FOLDER_H_
