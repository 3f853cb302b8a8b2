// The fixture of tests that run on every AES path that this processor has.
#ifndef VELPROBE_TESTS_AES_PATHS_H_
#define VELPROBE_TESTS_AES_PATHS_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "modules/Crypto/c/aes_block.h"

namespace velprobe {

class AesPathTest : public testing::TestWithParam<const AesPath*> {
 protected:
  void SetUp() override { force_aes_path(GetParam()); }
  void TearDown() override { force_aes_path(nullptr); }
};

inline std::vector<const AesPath*> aes_paths() {
  std::vector<const AesPath*> paths = {&portable_aes_path()};
  if (accelerated_aes_path() != nullptr) {
    paths.push_back(accelerated_aes_path());
  }
  return paths;
}

inline std::string aes_path_name(
    const testing::TestParamInfo<const AesPath*>& path) {
  return path.param->name;
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_AES_PATHS_H_
