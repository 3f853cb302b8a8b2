// A set of IPv4 addresses whose look-ups do not slow down as it grows.
#ifndef VELPROBE_PROBE_ADDRESS_SET_H_
#define VELPROBE_PROBE_ADDRESS_SET_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "../net/address.h"

namespace velprobe {

// AddressSet is a hash table with open addressing, at most half full.
class AddressSet {
 public:
  // contains tells whether an address has been added.
  bool contains(const Ipv4Address& address) const;

  // add adds an address that the set does not contain. False when memory
  // runs out: the set is then as it was.
  [[nodiscard]] bool add(const Ipv4Address& address);

 private:
  // A slot holds an address plus one, so that 0 is a free slot.
  using Slot = std::uint64_t;

  std::size_t slot_index(Slot slot) const;
  [[nodiscard]] bool grow();

  std::unique_ptr<Slot[]> slots_;
  std::size_t num_slots_ = 0;  // 0 or a power of two
  std::size_t num_used_ = 0;
};

}  // namespace velprobe

#endif  // VELPROBE_PROBE_ADDRESS_SET_H_
