#include "manager/slice_children.h"

namespace tsm {

SliceChildren::~SliceChildren() {
  lists_.ForEach([](const CString&, List* list) {
    for (Chunk* chunk = list->head; chunk != nullptr;) {
      Chunk* next = chunk->next;
      delete chunk;
      chunk = next;
    }
    delete list;
  });
}

void SliceChildren::Append(const CString& slice_id, const CString& key) {
  List* list = nullptr;
  if (!lists_.Lookup(slice_id, list)) {
    list = new List;
    lists_.SetAt(slice_id, list);
  }
  const std::size_t at = list->count % Chunk::kSize;
  if (at == 0) {
    auto* chunk = new Chunk;
    if (list->tail == nullptr) {
      list->head = chunk;
    } else {
      list->tail->next = chunk;
    }
    list->tail = chunk;
  }
  Key& slot = list->tail->keys[at];
  slot.text = key;
  slot.plain = key.wstr().find(L',') == std::wstring::npos;
  ++list->count;
}

SliceChildren::View SliceChildren::Find(const CString& slice_id) const {
  List* list = nullptr;
  if (!lists_.Lookup(slice_id, list)) return View();
  return View(list->head, list->count);
}

bool SliceChildren::Text(const CString& slice_id, CString& text) const {
  List* list = nullptr;
  if (!lists_.Lookup(slice_id, list)) {
    text = CString();
    return false;
  }
  std::wstring joined;
  const Chunk* chunk = list->head;
  for (std::size_t i = 0; i < list->count; ++i) {
    const std::size_t at = i % Chunk::kSize;
    if (i > 0 && at == 0) chunk = chunk->next;
    if (i > 0) joined += L',';
    joined += chunk->keys[at].text.wstr();
  }
  text = CString(std::move(joined));
  return true;
}

}  // namespace tsm
