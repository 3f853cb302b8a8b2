#include "address_set.h"

#include <new>
#include <utility>

namespace velprobe {

namespace {

constexpr std::size_t kFirstNumSlots = 64;

std::uint64_t slot_of(const Ipv4Address& address) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : address) number = number << 8 | byte;
  return number + 1;
}

// Neighbours on one network differ in few bits: the product spreads them over
// the upper half (the constant is 2^64 divided by the golden ratio).
std::size_t hash_of(std::uint64_t slot) {
  return static_cast<std::size_t>((slot * 0x9E3779B97F4A7C15) >> 32);
}

}  // namespace

// slot_index is where the slot is, or the free place where it belongs.
std::size_t AddressSet::slot_index(Slot slot) const {
  const std::size_t mask = num_slots_ - 1;
  std::size_t index = hash_of(slot) & mask;
  while (slots_[index] != 0 && slots_[index] != slot) {
    index = (index + 1) & mask;
  }
  return index;
}

bool AddressSet::contains(const Ipv4Address& address) const {
  return num_slots_ != 0 && slots_[slot_index(slot_of(address))] != 0;
}

bool AddressSet::add(const Ipv4Address& address) {
  if (num_used_ * 2 >= num_slots_ && !grow()) return false;
  const Slot slot = slot_of(address);
  slots_[slot_index(slot)] = slot;
  ++num_used_;
  return true;
}

bool AddressSet::grow() {
  AddressSet larger;
  larger.num_slots_ = num_slots_ == 0 ? kFirstNumSlots : num_slots_ * 2;
  larger.slots_.reset(new (std::nothrow) Slot[larger.num_slots_]());
  if (!larger.slots_) return false;
  for (std::size_t i = 0; i < num_slots_; ++i) {
    if (slots_[i] != 0) larger.slots_[larger.slot_index(slots_[i])] = slots_[i];
  }
  slots_ = std::move(larger.slots_);
  num_slots_ = larger.num_slots_;
  return true;
}

}  // namespace velprobe
