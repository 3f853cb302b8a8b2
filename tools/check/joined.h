// Texts put together.
#ifndef VELPROBE_CHECK_JOINED_H_
#define VELPROBE_CHECK_JOINED_H_

#include <initializer_list>
#include <string>
#include <string_view>

namespace velprobe::check {

// joined puts texts together, one behind the other.
inline std::string joined(std::initializer_list<std::string_view> parts) {
  std::size_t size = 0;
  for (const std::string_view part : parts) size += part.size();
  std::string whole;
  whole.reserve(size);
  for (const std::string_view part : parts) whole += part;
  return whole;
}

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_JOINED_H_
