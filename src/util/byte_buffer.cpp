#include "byte_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace velprobe {
namespace {

constexpr std::size_t kSmallestCapacity = 64;

}  // namespace

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  return *this;
}

ByteBuffer::~ByteBuffer() {
  std::free(data_);
}

bool ByteBuffer::reserve(std::size_t extra) {
  if (extra <= capacity_ - size_) return true;
  // Half of the address space is out of reach anyway, and sums stay sums.
  if (extra > SIZE_MAX / 4 || capacity_ > SIZE_MAX / 4) return false;
  const std::size_t capacity =
      std::max({size_ + extra, 2 * capacity_, kSmallestCapacity});
  void* data = std::realloc(data_, capacity);
  if (data == nullptr) return false;
  data_ = static_cast<char*>(data);
  capacity_ = capacity;
  return true;
}

bool ByteBuffer::append(std::string_view bytes) {
  if (!reserve(bytes.size())) return false;
  if (!bytes.empty()) std::memcpy(data_ + size_, bytes.data(), bytes.size());
  size_ += bytes.size();
  return true;
}

}  // namespace velprobe
