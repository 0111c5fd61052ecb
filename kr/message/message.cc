#include "kr/message/message.h"

#include "kr/message/internal/node_visit.h"

namespace kr {
namespace internal {
constinit Rep nilRep;
}  // namespace internal

using internal::Node;
using internal::Rep;

namespace {

void freeList(Rep& owner, Node* n) {
  while (n) {
    Node* next = n->next;
    internal::freeNode(owner, n);
    n = next;
  }
}

// Copies a list pushing each copy at the head, so the copy is reversed.
Node* copyListReversed(const Node* n, Rep& into) {
  Node* head = nullptr;
  for (; n; n = n->next) {
    Node* c = internal::copyNode(n, into);
    if (!c) continue;
    c->next = head;
    head = c;
  }
  return head;
}

// Unlinks the nodes for which pred(id) holds and frees them.
template <class Pred>
void eraseNodes(Rep& owner, Node*& head, Pred pred) {
  for (Node** link = &head; *link;) {
    Node* n = *link;
    if (pred(n->id)) {
      *link = n->next;
      internal::freeNode(owner, n);
    } else {
      link = &n->next;
    }
  }
}

size_t listArena(const Node* n) {
  size_t bytes = 0;
  for (; n; n = n->next) bytes += internal::nodeSize(n->id);
  return bytes;
}

void freeBoolTable(Rep& owner, internal::htable<bool>* t) {
  if (owner.owns(t)) t->~htable();
  else delete t;
}

}  // namespace

namespace internal {

Rep* Rep::create(size_t arena) {
  if (arena == 0) return new Rep();
  void* mem = ::operator new(sizeof(Rep) + arena);
  Rep* r = new (mem) Rep();
  r->arena_pos = reinterpret_cast<unsigned char*>(r + 1);
  r->arena_end = r->arena_pos + arena;
  return r;
}

void Rep::destroy(Rep* r) {
  if (r->single_bool_id == kNoBool && r->bools) freeBoolTable(*r, r->bools);
  freeList(*r, r->fields);
  freeList(*r, r->arrays);
  delete r->passthrough;
  if (r->arena_end) {
    r->~Rep();
    ::operator delete(r);
  } else {
    delete r;
  }
}

}  // namespace internal

message::message(const message& o) : rep_(o.rep_) {
  if (rep_ == &internal::nilRep) return;
  ++rep_->refs;
  if (rep_->unshareable) clone();
}

message& message::operator=(const message& o) {
  Rep* old = rep_;
  if (o.rep_ != &internal::nilRep) ++o.rep_->refs;
  rep_ = o.rep_;
  release(old);
  if (rep_->unshareable) detach();  // self-assignment leaves a sole owner as it is
  return *this;
}

message& message::operator=(message&& o) noexcept {
  if (this != &o) {
    release(rep_);
    rep_ = o.rep_;
    o.rep_ = &internal::nilRep;
  }
  return *this;
}

message::message(const unsigned char* data, unsigned int len) : rep_(&internal::nilRep) {
  unflatten(data, len, kFlatNormal);
}
message::message(const std::vector<unsigned char>& data) : message(data.data(), static_cast<unsigned>(data.size())) {}
message::message(const flat_message& data) : message(data.data(), static_cast<unsigned>(data.size())) {}

message& message::operator=(const flat_message& data) {
  message parsed(data);
  return *this = std::move(parsed);
}

void message::release(Rep* r) {
  if (r == &internal::nilRep || --r->refs != 0) return;
  Rep::destroy(r);
}

void message::clone() {
  Rep* old = rep_;
  if (old == &internal::nilRep) {
    rep_ = new Rep();
    return;
  }
  const bool boolTable = old->bools && old->single_bool_id == Rep::kNoBool;
  // The copy's nodes are known now: carve them all from one allocation.
  Rep* r = Rep::create((boolTable ? sizeof(internal::htable<bool>) : 0) + listArena(old->fields) +
                       listArena(old->arrays));
  {
    r->single_bool_id = old->single_bool_id;
    r->single_bool = old->single_bool;
    if (boolTable) {
      void* mem = r->carve(sizeof(internal::htable<bool>));
      r->bools = new (mem) internal::htable<bool>(*old->bools);
    }
    r->u32s.assign(old->u32s);
    r->fields = copyListReversed(old->fields, *r);
    r->arrays = copyListReversed(old->arrays, *r);
    if (old->passthrough) r->passthrough = new std::vector<unsigned char>(*old->passthrough);
  }
  rep_ = r;
  release(old);
}

// Moves the inline bool, if any, into a new table.
void message::makeBoolTable() {
  Rep* r = rep_;
  void* mem = r->carve(sizeof(internal::htable<bool>));
  r->bools = mem ? new (mem) internal::htable<bool>() : new internal::htable<bool>();
  if (r->single_bool_id != Rep::kNoBool) {
    r->bools->get_ref(r->single_bool_id) = r->single_bool;
    r->single_bool_id = Rep::kNoBool;
  }
}

bool& message::refBool(uint32_t id) {
  Rep* r = rep_;
  if (r->single_bool_id == id) return r->single_bool;
  if (r->single_bool_id != Rep::kNoBool) {
    makeBoolTable();  // a second bool: both live in a table
  } else if (!r->bools) {
    r->single_bool_id = id;
    r->single_bool = false;
    return r->single_bool;
  }
  return r->bools->get_ref(id);
}

void message::remove(unsigned int id) {
  if (kind::isArray(id)) remove_array(id);
  else if (kind::of(id) == kind::kBool) remove_bool(id);
  else if (kind::of(id) == kind::kU32) remove_u32(id);
  else remove_field(id);
}

void message::remove_array(unsigned int id) {
  detach();
  eraseNodes(*rep_, rep_->arrays, [id](uint32_t k) { return k == id; });
}

void message::remove_field(unsigned int id) {
  detach();
  eraseNodes(*rep_, rep_->fields, [id](uint32_t k) { return k == id; });
}

void message::remove_u32(unsigned int id) {
  detach();
  rep_->u32s.erase(id);
}

void message::remove_bool(unsigned int id) {
  detach();
  if (rep_->single_bool_id != Rep::kNoBool) {
    if (rep_->single_bool_id == id) rep_->single_bool_id = Rep::kNoBool;
  } else if (rep_->bools) {
    rep_->bools->erase(id);
  }
}

unsigned int message::count() const {
  const Rep* r = rep_;
  unsigned int n = r->single_bool_id != Rep::kNoBool ? 1 : (r->bools ? r->bools->count() : 0);
  n += r->u32s.count();
  for (const Node* p = r->fields; p; p = p->next) ++n;
  for (const Node* p = r->arrays; p; p = p->next) ++n;
  return n;
}

std::vector<unsigned int> message::ids() const {
  std::vector<unsigned int> out;
  out.reserve(count());
  const Rep* r = rep_;
  if (r->single_bool_id != Rep::kNoBool) out.push_back(r->single_bool_id);
  else if (r->bools) r->bools->for_each([&](uint32_t k, bool) { out.push_back(k); });
  r->u32s.for_each([&](uint32_t k, unsigned int) { out.push_back(k); });
  for (const Node* p = r->fields; p; p = p->next) out.push_back(p->id);
  for (const Node* p = r->arrays; p; p = p->next) out.push_back(p->id);
  return out;
}

void message::removeIdMask(unsigned int value, unsigned int mask) {
  if (empty()) return;
  const uint32_t v = value & mask;
  detach();
  Rep* r = rep_;
  if (v < kind::kU32) {
    if (r->single_bool_id != Rep::kNoBool) {
      if ((r->single_bool_id & mask) == v) r->single_bool_id = Rep::kNoBool;
    } else if (r->bools) {
      r->bools->erase_matching(v, mask);
    }
  }
  if ((v & ~0x07FFFFFFu) == (mask & kind::kU32)) r->u32s.erase_matching(v, mask);
  auto matches = [v, mask](uint32_t id) { return (id & mask) == v; };
  eraseNodes(*r, r->fields, matches);
  eraseNodes(*r, r->arrays, matches);
}

flat_message message::toFlat(const message& m) {
  flat_message f;
  m.flatten(f);
  return f;
}

std::vector<flat_message> message::toFlat(const std::vector<message>& ms) {
  std::vector<flat_message> out;
  out.reserve(ms.size());
  for (const message& m : ms) out.push_back(toFlat(m));
  return out;
}

}  // namespace kr
