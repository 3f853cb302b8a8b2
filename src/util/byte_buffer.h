// A run of bytes whose growth can fail.
#ifndef VELPROBE_UTIL_BYTE_BUFFER_H_
#define VELPROBE_UTIL_BYTE_BUFFER_H_

#include <cstddef>
#include <string_view>

namespace velprobe {

// ByteBuffer is a growing run of bytes whose growth can fail. Its capacity
// doubles, so that appending is linear over all.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& other) noexcept;
  ByteBuffer& operator=(ByteBuffer&& other) noexcept;
  ~ByteBuffer();

  // append adds bytes at the end. False when memory runs out: the buffer is
  // then as it was.
  [[nodiscard]] bool append(std::string_view bytes);

  // reserve makes space for at least extra further bytes. False when memory
  // runs out: the buffer is then as it was.
  [[nodiscard]] bool reserve(std::size_t extra);

  const char* data() const { return data_; }
  char* data() { return data_; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  // resize sets the number of bytes in use; it never exceeds the capacity.
  void resize(std::size_t size) { size_ = size; }
  std::string_view view() const { return {data_, size_}; }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace velprobe

#endif  // VELPROBE_UTIL_BYTE_BUFFER_H_
