// The hash of a field name in the tables of names of the base-data
// component and of the records that read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tsm {

// The hash of a field name in the tables of names: the text's bytes eight at
// a time, finished so that the low bits the tables mask with depend on every
// character. The same text gives the same hash in every module of a process.
inline std::size_t FieldNameHash(std::wstring_view text) {
  constexpr uint64_t kMultiplier = 0xFF51AFD7ED558CCDull;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t left = text.size() * sizeof(wchar_t);
  uint64_t hash = 0x9E3779B97F4A7C15ull ^ left;
  for (; left >= sizeof(uint64_t); left -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    hash = (hash ^ word) * kMultiplier;
    hash ^= hash >> 29;
  }
  if (left > 0) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, left);
    hash = (hash ^ word) * kMultiplier;
  }
  hash ^= hash >> 32;
  hash *= kMultiplier;
  hash ^= hash >> 29;
  return static_cast<std::size_t>(hash);
}

}  // namespace tsm
