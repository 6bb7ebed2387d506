#include "basedata/base_data_object.h"

#include <algorithm>
#include <utility>


namespace tsm::basedata {

BaseDataObject::BaseDataObject(std::wstring name) : name_(std::move(name)) {}

BaseDataObject::~BaseDataObject() {
  // No other reference exists, so nothing else can take the lock now.
  for (const SinkEntry& entry : sinks_) {
    entry.connection->open.store(false, std::memory_order_release);
    entry.sink->Release();
  }
  for (const auto& named : named_children_) Retire(named.second);
  for (const ChildSlot& slot : children_) Retire(slot);
}

uint32_t BaseDataObject::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

uint32_t BaseDataObject::Release() {
  const uint32_t left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

int32_t BaseDataObject::BeginUpdate() {
  std::lock_guard<ObjectLock> guard(lock_);
  const int32_t id = ++last_update_id_;
  // The room of the last closed update is reused.
  OpenUpdate& open = open_updates_.emplace_back(OpenUpdate{id, std::exchange(spare_writes_, {})});
  // Room for a typical batch, so that it does not grow step by step.
  if (open.writes.capacity() == 0) open.writes.reserve(8);
  return id;
}

void BaseDataObject::SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) {
  Write write = MakeWrite(kind, key, value);
  std::lock_guard<ObjectLock> guard(lock_);
  for (OpenUpdate& open : open_updates_) {
    if (open.id == update_id) {
      open.writes.push_back(std::move(write));
      return;
    }
  }
  ApplyLocked(write, nullptr);
}

void BaseDataObject::EndUpdate(int32_t update_id) {
  std::lock_guard<ObjectLock> guard(lock_);
  const auto open = std::find_if(open_updates_.begin(), open_updates_.end(),
                                 [update_id](const OpenUpdate& u) { return u.id == update_id; });
  std::wstring changed;
  std::wstring* text = sinks_.empty() ? nullptr : &changed;
  if (open != open_updates_.end()) {
    fields_by_name_.Reserve(fields_by_name_.size() + open->writes.size());
    if (text != nullptr) text->reserve(ChangedTextLength(open->writes));
    for (Write& write : open->writes) ApplyLocked(write, text);
    open->writes.clear();
    spare_writes_ = std::move(open->writes);
    open_updates_.erase(open);
  }
  PostLocked(QueuedEvent::Kind::kUpdate, update_id, std::move(changed));
}

void BaseDataObject::WriteFirstFields(TsmField* fields, int32_t count) {
  std::lock_guard<ObjectLock> guard(lock_);
  ++last_update_id_;
  fields_by_name_.Reserve(fields_by_name_.size() + static_cast<std::size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    TsmField& field = fields[i];
    if (field.name == nullptr || field.value.IsEmpty()) continue;
    fields_by_name_.Set(FieldTable::InternAt(field.name), std::move(field.value));
  }
}

BaseDataObject::Write BaseDataObject::MakeWrite(int32_t kind, const Variant& key, const Variant& value) {
  Write write;
  if (kind == kKindFieldByName && key.type() == VarType::BStr) {
    write.target = Write::Target::kField;
    write.field = FieldTable::Intern(key.text());
  } else if (kind == kKindFieldById && key.type() == VarType::I4) {
    write.target = Write::Target::kFieldById;
    write.id = key.i4();
  } else if (kind == kKindName && value.type() == VarType::BStr) {
    write.target = Write::Target::kRename;
  } else {
    return write;
  }
  write.value = value;
  return write;
}

std::size_t BaseDataObject::ChangedTextLength(const std::vector<Write>& writes) {
  // A field id takes at most 11 characters ("-2147483648").
  constexpr std::size_t kIdLength = 11;
  std::size_t length = 0;
  for (const Write& write : writes) {
    if (write.target == Write::Target::kField) length += write.field->text.size() + 1;
    if (write.target == Write::Target::kFieldById) length += kIdLength + 1;
  }
  return length;
}

void BaseDataObject::ApplyLocked(Write& write, std::wstring* changed) {
  switch (write.target) {
    case Write::Target::kField:
      if (write.value.IsEmpty()) {
        fields_by_name_.Erase(write.field);
      } else {
        fields_by_name_.Set(write.field, std::move(write.value));
      }
      if (changed != nullptr) {
        if (!changed->empty()) *changed += L',';
        *changed += write.field->text;
      }
      break;
    case Write::Target::kFieldById:
      if (write.value.IsEmpty()) {
        fields_by_id_.erase(write.id);
      } else {
        fields_by_id_.insert_or_assign(write.id, std::move(write.value));
      }
      if (changed != nullptr) {
        if (!changed->empty()) *changed += L',';
        *changed += std::to_wstring(write.id);
      }
      break;
    case Write::Target::kRename:
      name_ = write.value.TakeText();
      break;
    case Write::Target::kNone:
      break;
  }
}

Variant BaseDataObject::GetData(int32_t kind, const Variant& argument) {
  // A key the name pool made itself names its field without being read.
  const FieldTable::Name* pooled = kind == kKindFieldByName ? FieldTable::Pooled(argument) : nullptr;
  std::lock_guard<ObjectLock> guard(lock_);
  switch (kind) {
    case kKindFieldByName: {
      if (argument.type() != VarType::BStr) return Variant();
      const Variant* value = pooled != nullptr ? fields_by_name_.Find(pooled) : fields_by_name_.Find(argument.text());
      return value != nullptr ? *value : Variant();
    }
    case kKindFieldById: {
      if (argument.type() != VarType::I4) return Variant();
      const auto it = fields_by_id_.find(argument.i4());
      return it != fields_by_id_.end() ? it->second : Variant();
    }
    case kKindChildByName: {
      if (argument.type() != VarType::BStr) return Variant();
      const auto it = named_children_.find(argument.text());
      return it != named_children_.end() ? PublishLocked(it->second) : Variant();
    }
    case kKindChildren:
      if (argument.type() != VarType::I4) return Variant();
      return ChildAtLocked(argument.i4());
    case kKindName:
      return Variant::Text(name_);
    default:
      return Variant();
  }
}

Variant BaseDataObject::ChildAtLocked(int32_t index) {
  if (index == -1) return Variant::I4(static_cast<int32_t>(children_.size()));
  if (index < 0) return Variant();
  if (failing_child_reads_ > 0) {
    --failing_child_reads_;
    return Variant();
  }
  if (static_cast<std::size_t>(index) >= children_.size()) return Variant();
  return PublishLocked(children_[static_cast<std::size_t>(index)]);
}

Variant BaseDataObject::PublishLocked(ChildSlot& slot) {
  if (slot.cookie == 0 &&
      TsmGetGlobalInterfaceTable()->RegisterInterfaceInGlobal(slot.object, &slot.cookie) != kS_OK) {
    return Variant();
  }
  return Variant::I4(static_cast<int32_t>(slot.cookie));
}

void BaseDataObject::Retire(const ChildSlot& slot) {
  if (slot.cookie != 0) TsmGetGlobalInterfaceTable()->RevokeInterfaceFromGlobal(slot.cookie);
  slot.object->Release();
}

void BaseDataObject::SetChild(const std::wstring& field, IBaseData* child) {
  if (child != nullptr) child->AddRef();
  ChildSlot old;
  {
    std::lock_guard<ObjectLock> guard(lock_);
    const auto it = named_children_.find(field);
    if (it != named_children_.end()) {
      old = it->second;
      named_children_.erase(it);
    }
    if (child != nullptr) named_children_.emplace(field, ChildSlot{child, 0});
  }
  if (old.object != nullptr) Retire(old);
}

void BaseDataObject::AppendChild(IBaseData* child) {
  if (child == nullptr) return;
  child->AddRef();
  std::lock_guard<ObjectLock> guard(lock_);
  children_.push_back(ChildSlot{child, 0});
}

void BaseDataObject::ClearChildren() {
  std::vector<ChildSlot> old;
  {
    std::lock_guard<ObjectLock> guard(lock_);
    old.swap(children_);
  }
  for (const ChildSlot& slot : old) Retire(slot);
}

void BaseDataObject::FailChildReads(int32_t times) {
  std::lock_guard<ObjectLock> guard(lock_);
  failing_child_reads_ = times > 0 ? times : 0;
}

void BaseDataObject::RaiseReplace(int32_t id) {
  std::lock_guard<ObjectLock> guard(lock_);
  PostLocked(QueuedEvent::Kind::kReplace, id, std::wstring());
}

void BaseDataObject::PostLocked(QueuedEvent::Kind kind, int32_t id, std::wstring text) {
  for (std::size_t i = 0; i < sinks_.size(); ++i) {
    const SinkEntry& entry = sinks_[i];
    entry.sink->AddRef();
    QueuedEvent event{kind, id, std::wstring(), entry.sink, entry.connection};
    // The last sink takes the text itself.
    if (i + 1 < sinks_.size()) {
      event.text = text;
    } else {
      event.text = std::move(text);
    }
    EventQueue::Instance().Post(std::move(event));
  }
}

HResult BaseDataObject::Advise(IBaseDataEvents* sink, uint32_t* cookie) {
  if (cookie == nullptr) return kE_INVALIDARG;
  *cookie = 0;
  if (sink == nullptr) return kE_INVALIDARG;
  sink->AddRef();
  std::lock_guard<ObjectLock> guard(lock_);
  if (++last_advise_cookie_ == 0) ++last_advise_cookie_;
  sinks_.push_back(SinkEntry{last_advise_cookie_, sink, std::make_shared<Connection>()});
  *cookie = last_advise_cookie_;
  return kS_OK;
}

HResult BaseDataObject::Unadvise(uint32_t cookie) {
  IBaseDataEvents* sink = nullptr;
  {
    std::lock_guard<ObjectLock> guard(lock_);
    const auto it = std::find_if(sinks_.begin(), sinks_.end(),
                                 [cookie](const SinkEntry& entry) { return entry.cookie == cookie; });
    if (it == sinks_.end()) return kE_INVALIDARG;
    it->connection->open.store(false, std::memory_order_release);
    sink = it->sink;
    sinks_.erase(it);
  }
  sink->Release();
  return kS_OK;
}

}  // namespace tsm::basedata
