// The level keys of the children sent for each slice, in the order they were
// taken in. Children are only ever added: a slice's list lives as long as the
// object. The fill handler walks a slice's list on every fill, so the list is
// kept as keys and read in place; the comma-joined text the cancel-all logs
// is built only there.
//
// Threading: `Append`, `Find` and `Text` run under the owner's slice mutex.
// A `View` taken under that mutex stays valid and unchanged after the mutex
// is released: the entries it covers are never moved or written again, and
// later appends only add entries past its end. The one exception is each
// key's `Found` note, which only the fill handler reads and writes, under the
// owner's order mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "data/containers.h"
#include "data/text.h"
#include "manager/text_pieces.h"

namespace tsm {

class SliceChildren {
 public:
  SliceChildren() = default;
  SliceChildren(const SliceChildren&) = delete;
  SliceChildren& operator=(const SliceChildren&) = delete;
  ~SliceChildren();

  // What the fill handler last found for a key in the owner's order
  // registry, and the registry's version then: while the version stands,
  // the registry still holds that record under the key.
  struct Found {
    void* record = nullptr;
    uint64_t version = 0;  // 0: nothing found yet
  };
  struct Key {
    CString text;
    bool plain = true;  // holds no ",", so it is one piece of the joined text
    mutable Found found;
  };
  // Fixed-size blocks, so that appending never moves an entry a view covers.
  struct Chunk {
    static constexpr std::size_t kSize = 16;
    Key keys[kSize];
    Chunk* next = nullptr;
  };

  // The keys of one slice as they stood when the view was taken.
  class View {
   public:
    View() = default;
    // Calls fn(piece) for every piece the joined text splits into at ",",
    // in order, skipping empty pieces, as a split of `Text` would give them.
    template <typename Fn>
    void ForEachPiece(Fn&& fn) const;
    // The same, calling fn(piece, found) with the key's note for a key that
    // is one piece, and a null note for the pieces of a key with commas.
    template <typename Fn>
    void ForEachKey(Fn&& fn) const;
    std::size_t size() const { return count_; }

   private:
    friend class SliceChildren;
    View(const Chunk* head, std::size_t count) : head_(head), count_(count) {}
    const Chunk* head_ = nullptr;
    std::size_t count_ = 0;
  };

  // Adds `key` at the end of the slice's list, making the list when needed.
  void Append(const CString& slice_id, const CString& key);
  // The slice's keys; an empty view for a slice without children.
  View Find(const CString& slice_id) const;
  // The slice's keys joined with ","; empty for a slice without children.
  // False when the slice has none.
  bool Text(const CString& slice_id, CString& text) const;

 private:
  struct List {
    Chunk* head = nullptr;
    Chunk* tail = nullptr;
    std::size_t count = 0;
  };

  CMapStringTo<List*> lists_;
};

template <typename Fn>
void SliceChildren::View::ForEachKey(Fn&& fn) const {
  const Chunk* chunk = head_;
  for (std::size_t i = 0; i < count_; ++i) {
    const std::size_t at = i % Chunk::kSize;
    if (i > 0 && at == 0) chunk = chunk->next;
    const Key& key = chunk->keys[at];
    const std::wstring_view text(key.text.wstr());
    if (key.plain) {
      if (!text.empty()) fn(text, &key.found);
      continue;
    }
    int pos = 0;
    for (std::wstring_view piece = NextPiece(text, L',', pos); pos != -1; piece = NextPiece(text, L',', pos)) {
      fn(piece, static_cast<Found*>(nullptr));
    }
  }
}

template <typename Fn>
void SliceChildren::View::ForEachPiece(Fn&& fn) const {
  ForEachKey([&fn](std::wstring_view piece, Found*) { fn(piece); });
}

}  // namespace tsm
