// `FuzzInput`: reads a fuzzer's bytes as the values a target needs. Past the
// end every read gives zero or empty text, so any input is a complete one.
//
// Threading: a value type; no shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tsm::fuzz {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool Empty() const { return at_ >= size_; }
  std::size_t Remaining() const { return Empty() ? 0 : size_ - at_; }
  uint8_t Byte() { return Empty() ? 0 : data_[at_++]; }
  bool Bool() { return (Byte() & 1) != 0; }
  uint32_t U32();
  int32_t I32() { return static_cast<int32_t>(U32()); }
  int64_t I64();
  // 0 .. n-1 (n from 1 to 256).
  uint32_t Below(uint32_t n) { return n <= 1 ? 0 : Byte() % n; }
  // A short text: a length byte, then one character per byte, mostly
  // printable; a byte of 0xFE or above starts a character out of ASCII.
  std::wstring Text(std::size_t max_length);
  // One of `choices`, or (when `random_too`) a short random text instead.
  std::wstring Pick(const std::vector<std::wstring>& choices, bool random_too);
  // The rest of the bytes, as they are.
  std::string_view Rest();
  // The next `n` bytes (fewer at the end).
  std::string_view Bytes(std::size_t n);

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

}  // namespace tsm::fuzz
