// Public test vectors: where they are, and their common file forms.
#ifndef VELPROBE_TESTS_VECTORS_H_
#define VELPROBE_TESTS_VECTORS_H_

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

// Skips a test when the build was given no folder of vectors.
#define SKIP_WITHOUT_VECTORS()         \
  if (*VELPROBE_VECTORS == '\0')       \
  GTEST_SKIP() << "no public vectors " \
                  "here: configure with -DVELPROBE_VECTORS=<folder>"

namespace velprobe {

// Vector is one case: its fields by name, and the "[SECTION]" it stands in.
struct Vector {
  std::string section;
  std::map<std::string, std::string> fields;
  std::string where;  // file and line, for messages

  std::string operator[](const std::string& name) const {
    const auto field = fields.find(name);
    return field == fields.end() ? "" : field->second;
  }
};

// read_vectors reads the cases of a file within the folder. A case is a run of
// lines "KEY = value" that an empty line ends ("key": "value" and a brace in a
// JSON file); lines from "#" on are comments. A file without cases is a
// failure.
inline std::vector<Vector> read_vectors(const std::string& file) {
  const bool is_json = file.ends_with(".json");
  std::ifstream stream(std::string(VELPROBE_VECTORS) + "/" + file);
  std::vector<Vector> vectors;
  Vector vector;
  std::string line;
  for (int number = 1; std::getline(stream, line); ++number) {
    const bool is_section = line.starts_with('[');
    std::erase_if(line, [](char c) { return std::strchr(" \t\r,\"[]", c); });
    const std::size_t equals = line.find(is_json ? ':' : '=');
    if (line.empty() || line == "}") {
      if (!vector.fields.empty()) vectors.push_back(vector);
      vector.fields.clear();
    } else if (is_section) {
      vector.section = line;
    } else if (line[0] != '#' && equals != std::string::npos) {
      if (vector.fields.empty()) {
        vector.where = file + ":" + std::to_string(number);
      }
      vector.fields[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  if (!vector.fields.empty()) vectors.push_back(vector);
  EXPECT_FALSE(vectors.empty()) << "no vectors in " << file;
  return vectors;
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_VECTORS_H_
