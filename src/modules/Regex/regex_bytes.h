// What the whole module builds on: arrays whose growth can fail, sets of bytes.
#ifndef VELPROBE_MODULES_REGEX_REGEX_BYTES_H_
#define VELPROBE_MODULES_REGEX_REGEX_BYTES_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

namespace velprobe {

// Array is a growing run of plain values. What can grow it returns false when
// out of memory, and the array is then as it was.
template <class T>
class Array {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  Array() = default;
  Array(Array&& other) noexcept { swap(other); }
  Array& operator=(Array&& other) noexcept {
    Array taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~Array() { std::free(data_); }

  void swap(Array& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  [[nodiscard]] bool reserve(std::size_t capacity) {
    if (capacity <= capacity_) return true;
    if (capacity > PTRDIFF_MAX / sizeof(T)) return false;
    void* grown = std::realloc(static_cast<void*>(data_), capacity * sizeof(T));
    if (grown == nullptr) return false;
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
    return true;
  }

  [[nodiscard]] bool push(const T& value) {
    const T kept = value;
    if (size_ == capacity_ && !reserve(size_ < 8 ? 8 : 2 * size_)) return false;
    data_[size_++] = kept;
    return true;
  }

  // resize fills what it adds with zero bytes.
  [[nodiscard]] bool resize(std::size_t size) {
    if (size > capacity_ && !reserve(size)) return false;
    if (size > size_) {
      std::memset(static_cast<void*>(data_ + size_), 0,
                  (size - size_) * sizeof(T));
    }
    size_ = size;
    return true;
  }

  void pop() { --size_; }
  void clear() { size_ = 0; }
  // shrink drops what lies behind the first size values.
  void shrink(std::size_t size) { size_ = size; }
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  std::size_t bytes() const { return capacity_ * sizeof(T); }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

 private:
  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

inline std::uint8_t byte_at(const char* text, std::size_t i) {
  return static_cast<std::uint8_t>(text[i]);
}

// ByteSet is a set of the 256 values of a byte.
struct ByteSet {
  std::uint64_t words[4] = {};

  bool has(std::uint8_t byte) const {
    return words[byte >> 6] >> (byte & 63) & 1;
  }
  void add(std::uint8_t byte) {
    words[byte >> 6] |= std::uint64_t{1} << (byte & 63);
  }
  void remove(std::uint8_t byte) {
    words[byte >> 6] &= ~(std::uint64_t{1} << (byte & 63));
  }
  void add_range(unsigned first, unsigned last) {
    for (unsigned byte = first; byte <= last; ++byte) {
      add(static_cast<std::uint8_t>(byte));
    }
  }
  void add_all(const ByteSet& other) {
    for (int i = 0; i < 4; ++i) words[i] |= other.words[i];
  }
  void invert() {
    for (std::uint64_t& word : words) word = ~word;
  }
  bool meets(const ByteSet& other) const {
    std::uint64_t common = 0;
    for (int i = 0; i < 4; ++i) common |= words[i] & other.words[i];
    return common != 0;
  }
  int count() const {
    int sum = 0;
    for (std::uint64_t word : words) sum += std::popcount(word);
    return sum;
  }
  bool operator==(const ByteSet&) const = default;

  // for_each calls visit(byte) for each member in order.
  template <class Visit>
  void for_each(Visit visit) const {
    for (unsigned i = 0; i < 4; ++i) {
      for (std::uint64_t rest = words[i]; rest != 0; rest &= rest - 1) {
        visit(static_cast<std::uint8_t>(
            i * 64 + static_cast<unsigned>(std::countr_zero(rest))));
      }
    }
  }
};

constexpr bool is_ascii_letter(std::uint8_t byte) {
  const std::uint8_t lower = byte | 0x20;
  return lower >= 'a' && lower <= 'z';
}

constexpr bool is_ascii_digit(std::uint8_t byte) {
  return byte >= '0' && byte <= '9';
}

// is_word_byte tells the bytes that words consist of.
constexpr bool is_word_byte(std::uint8_t byte) {
  return is_ascii_letter(byte) || is_ascii_digit(byte) || byte == '_';
}

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_BYTES_H_
