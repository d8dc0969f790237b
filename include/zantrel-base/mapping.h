// A shared mapping of a descriptor (an overlay buffer of the device, a file)
// that is released on every path.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace zantrel {

class Mapping {
 public:
  Mapping() = default;
  Mapping(int fd, size_t length, int protection, off_t offset) : length_(length) {
    void* address = mmap(nullptr, length, protection, MAP_SHARED, fd, offset);
    address_ = address == MAP_FAILED ? nullptr : address;
  }
  Mapping(Mapping&& other) noexcept
      : address_(std::exchange(other.address_, nullptr)), length_(other.length_) {}
  Mapping& operator=(Mapping&& other) noexcept {
    std::swap(address_, other.address_);
    std::swap(length_, other.length_);
    return *this;
  }
  ~Mapping() { reset(); }

  void reset() {
    if (address_ != nullptr) munmap(address_, length_);
    address_ = nullptr;
  }
  // Hands the mapping over to the caller, who unmaps it.
  unsigned char* release() { return static_cast<unsigned char*>(std::exchange(address_, nullptr)); }
  explicit operator bool() const { return address_ != nullptr; }
  unsigned char* bytes() const { return static_cast<unsigned char*>(address_); }
  size_t size() const { return length_; }
  std::span<uint8_t> span() const {
    return address_ != nullptr ? std::span<uint8_t>(bytes(), length_) : std::span<uint8_t>();
  }

 private:
  void* address_ = nullptr;
  size_t length_ = 0;
};

}  // namespace zantrel
