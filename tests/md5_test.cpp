#include "modules/Crypto/md5.h"

#include <gtest/gtest.h>

#include <string>

#include "support/bytes.h"
#include "support/vectors.h"

namespace velprobe {
namespace {

// expect_digest digests a text whole and in pieces on either side of a block.
void expect_digest(const std::string& text, const std::string& digest) {
  for (std::size_t piece : {1u, 7u, 63u, 64u, 65u, 1u << 20}) {
    Md5 md5;
    md5_initialise(&md5);
    md5_update(&md5, nullptr, 0);
    for (std::size_t at = 0; at < text.size(); at += piece) {
      md5_update(&md5, text.data() + at, std::min(piece, text.size() - at));
    }
    std::uint8_t out[kMd5Size];
    md5_finish(&md5, out);
    ASSERT_EQ(digits_of({reinterpret_cast<char*>(out), sizeof out}), digest)
        << "in pieces of " << piece;
    const std::string left(reinterpret_cast<char*>(&md5), sizeof md5);
    ASSERT_EQ(left, std::string(sizeof md5, '\0')) << "not wiped";
  }
}

// RFC 1321, A.5.
TEST(Md5, GivesThePublishedDigests) {
  expect_digest("", "d41d8cd98f00b204e9800998ecf8427e");
  expect_digest(
      "1234567890123456789012345678901234567890"
      "1234567890123456789012345678901234567890",
      "57edf4a22be3c955ac49da2e2107b67a");
}

// The vectors run through every length around the ends of blocks. Long messages
// are stated as a pattern: byte i is 7 * i plus a start.
TEST(Md5, GivesThePublicVectors) {
  SKIP_WITHOUT_VECTORS();
  for (const char* file :
       {"md5/rfc-1321.txt", "md5/generated-boundaries.txt"}) {
    for (const Vector& vector : read_vectors(file)) {
      SCOPED_TRACE(vector.where);
      const std::string& start = vector["Pattern"];
      std::string text = bytes_of(vector["Msg"]);
      text.resize(std::stoul(vector["Len"]) / 8);
      for (std::size_t i = 0; !start.empty() && i < text.size(); ++i) {
        text[i] = static_cast<char>(7 * i + std::stoul(start));
      }
      expect_digest(text, vector["MD"]);
    }
  }
}

}  // namespace
}  // namespace velprobe
