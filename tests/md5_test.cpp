#include "modules/Crypto/c/md5.h"

#include <gtest/gtest.h>

#include <string>

#include "vectors.h"

namespace velprobe {
namespace {

// md5_of digests text in pieces of at most piece bytes.
std::string md5_of(const std::string& text, std::size_t piece) {
  Md5 md5;
  md5_initialise(&md5);
  md5_update(&md5, nullptr, 0);
  for (std::size_t at = 0; at < text.size(); at += piece) {
    md5_update(&md5, text.data() + at, std::min(piece, text.size() - at));
  }
  std::uint8_t digest[kMd5Size];
  md5_finish(&md5, digest);
  return to_hex({reinterpret_cast<char*>(digest), sizeof digest});
}

// RFC 1321, A.5.
TEST(Md5, GivesThePublishedDigests) {
  const struct {
    std::string text;
    const char* digest;
  } rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890"
       "1234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& row : rows) EXPECT_EQ(md5_of(row.text, 1000), row.digest);
}

// message_of gives a vector's message. Long ones are stated as a pattern: byte
// i is 7 * i plus a start.
std::string message_of(const Vector& vector) {
  const std::size_t size = std::stoul(vector["Len"]) / 8;
  if (vector["Pattern"].empty()) return from_hex(vector["Msg"]).substr(0, size);
  const std::size_t start = std::stoul(vector["Pattern"]);
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>(7 * i + start);
  }
  return text;
}

// The vectors run through every length around the ends of blocks.
TEST(Md5, GivesThePublicVectorsInAnyPieces) {
  SKIP_WITHOUT_VECTORS();
  for (const char* file :
       {"md5/rfc-1321.txt", "md5/generated-boundaries.txt"}) {
    for (const Vector& vector : read_vectors(file)) {
      const std::string text = message_of(vector);
      for (std::size_t piece : {1u, 7u, 63u, 64u, 65u, 1u << 20}) {
        ASSERT_EQ(md5_of(text, piece), vector["MD"])
            << vector.where << " in pieces of " << piece;
      }
    }
  }
}

}  // namespace
}  // namespace velprobe
