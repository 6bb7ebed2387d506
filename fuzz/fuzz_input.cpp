#include "fuzz/fuzz_input.h"

namespace tsm::fuzz {

uint32_t FuzzInput::U32() {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = (value << 8) | Byte();
  return value;
}

int64_t FuzzInput::I64() {
  const uint64_t high = U32();
  return static_cast<int64_t>((high << 32) | U32());
}

std::wstring FuzzInput::Text(std::size_t max_length) {
  const std::size_t length = max_length == 0 ? 0 : Byte() % (max_length + 1);
  std::wstring text;
  for (std::size_t i = 0; i < length && !Empty(); ++i) {
    const uint8_t b = Byte();
    if (b >= 0xFE) {
      // Characters beyond ASCII: Latin, CJK, the surrogate range, the top
      // of the 16-bit plane.
      static constexpr wchar_t kWide[] = {0x00E9, 0x4E2D, 0xD800, 0xDC00, 0xFFFF, 0x3000, 0x00A0, 0xFEFF};
      text += kWide[Byte() % (sizeof kWide / sizeof kWide[0])];
    } else {
      text += static_cast<wchar_t>(b);
    }
  }
  return text;
}

std::wstring FuzzInput::Pick(const std::vector<std::wstring>& choices, bool random_too) {
  const uint32_t n = static_cast<uint32_t>(choices.size()) + (random_too ? 1u : 0u);
  const uint32_t i = Byte() % n;
  return i < choices.size() ? choices[i] : Text(16);
}

std::string_view FuzzInput::Rest() {
  if (Empty()) return {};
  std::string_view rest(reinterpret_cast<const char*>(data_ + at_), size_ - at_);
  at_ = size_;
  return rest;
}

std::string_view FuzzInput::Bytes(std::size_t n) {
  if (Empty()) return {};
  if (n > size_ - at_) n = size_ - at_;
  std::string_view bytes(reinterpret_cast<const char*>(data_ + at_), n);
  at_ += n;
  return bytes;
}

}  // namespace tsm::fuzz
