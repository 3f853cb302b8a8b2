// The MD5 message digest (RFC 1321). Its collisions are cheap to make: kept for
// compatibility, not for new designs.
#ifndef VELPROBE_MODULES_CRYPTO_MD5_H_
#define VELPROBE_MODULES_CRYPTO_MD5_H_

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(default)
namespace velprobe {

inline constexpr std::size_t kMd5Size = 16;

// Md5 is a digest in the making: a plain value, which may be copied to digest a
// common beginning once.
struct Md5 {
  std::uint32_t state[4];
  std::uint64_t length;      // bytes so far
  std::uint8_t pending[64];  // the bytes that do not fill a block yet
};

// md5_initialise starts a digest of no bytes.
void md5_initialise(Md5* md5);

// md5_update appends size bytes; data may be null when size is 0. The digest
// does not depend on how the message is cut into pieces.
void md5_update(Md5* md5, const void* data, std::size_t size);

// md5_finish writes the digest of all bytes appended and wipes md5, which has
// to be initialised before its next use.
void md5_finish(Md5* md5, std::uint8_t (&digest)[kMd5Size]);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_MD5_H_
