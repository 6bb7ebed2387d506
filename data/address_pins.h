// `AddressPins<T>`: what a NUL-terminated name read from a fixed address was
// found to be. A name spelt out in the code sits at one address for the life
// of the process, so the first address read from in each place of the table
// is pinned to what it named: a read from that address again only checks
// that the text there is still that name (one wcscmp), instead of measuring,
// hashing and comparing it. A place once taken keeps its pin, so a buffer
// reused for many names (not a name in the code) never makes more than one.
//
// Threading: look-ups take no lock (a place is set once, and a pin never
// moves nor changes); pins are made under the table's own mutex. Pinned
// entries and their texts must live as long as the table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <deque>
#include <mutex>

namespace tsm {

template <class T>
class AddressPins {
 public:
  // The entry pinned at `at`, when the text at `at` is still its name; null
  // otherwise.
  const T* Find(const wchar_t* at) const {
    const Pinned* pin = places_[Place(at)].load(std::memory_order_acquire);
    if (pin == nullptr || pin->at != at || std::wcscmp(at, pin->text) != 0) return nullptr;
    return pin->entry;
  }

  // Whether the place of `at` holds a pin (of `at` or of another address).
  bool Taken(const wchar_t* at) const { return places_[Place(at)].load(std::memory_order_acquire) != nullptr; }

  // Pins `entry`, named by the NUL-terminated `text` (no NUL inside the
  // name; it must live as long as the table), to `at` unless that place is
  // taken already.
  void Pin(const wchar_t* at, const wchar_t* text, const T* entry) {
    std::atomic<const Pinned*>& place = places_[Place(at)];
    if (place.load(std::memory_order_acquire) != nullptr) return;
    std::lock_guard<std::mutex> guard(lock_);
    if (place.load(std::memory_order_relaxed) != nullptr) return;
    made_.push_back(Pinned{at, text, entry});
    place.store(&made_.back(), std::memory_order_release);
  }

 private:
  static constexpr std::size_t kPlaces = 1024;  // a power of two

  struct Pinned {
    const wchar_t* at;
    const wchar_t* text;
    const T* entry;
  };

  static std::size_t Place(const wchar_t* at) {
    const uint64_t bits = static_cast<uint64_t>(reinterpret_cast<std::uintptr_t>(at));
    return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ull) >> 54) & (kPlaces - 1);
  }

  std::atomic<const Pinned*> places_[kPlaces] = {};
  std::mutex lock_;       // guards made_ and every pinning
  std::deque<Pinned> made_;  // one per place taken; never moved
};

}  // namespace tsm
