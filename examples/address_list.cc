#include "examples/address_list.h"

#include <vector>

#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace example {
namespace {

constexpr kr::string_id kAddress{0x20000001};

AddressEntry* entry(kr::SecObject* o) { return static_cast<AddressEntry*>(o); }

}  // namespace

void AddressEntry::save(kr::message& m, unsigned int) {
  m.insert(kAddress, address);
  if (!description.empty()) m.insert(kr::STD_DESCR, description);
  if (disabled) m.insert(kr::STD_DISABLED, true);
}

// A change carries only what changes; a stored record carries everything,
// so a record without a description or flag means "none".
void AddressEntry::load(const kr::message& m, unsigned int flags) {
  const bool whole = (flags & kStoreBit) != 0;
  m.extract(kAddress, address);
  if (!m.extract(kr::STD_DESCR, description) && whole) description.clear();
  if (!m.extract(kr::STD_DISABLED, disabled) && whole) disabled = false;
}

AddressList::AddressList() : ASecMap("/rw/store/example-addresses", 1, 9999, true) {}

AddressList::~AddressList() {
  // The map forgets its objects; they are ours to delete.
  std::vector<kr::SecObject*> all;
  for (kr::SecObject* o = firstById(); o; o = nextById(o)) all.push_back(o);
  for (kr::SecObject* o : all) delete o;
}

void AddressList::start() {
  init();
  log_ << "address table restored: " << order.size() << " entries" << std::endl;
  started_ = true;
}

void AddressList::objAdded(kr::SecObject* obj) {
  if (started_) log_ << "added entry " << obj->id << ": " << obj->describe() << std::endl;
}

void AddressList::objChanged(kr::SecObject* before, kr::SecObject* obj) {
  AddressEntry* was = entry(before);
  AddressEntry* is = entry(obj);
  log_ << "changed entry " << obj->id << ": " << is->describe();
  if (was->disabled != is->disabled) log_ << (is->disabled ? ", disabled" : ", enabled");
  log_ << std::endl;
}

void AddressList::objRemoved(kr::SecObject* obj) {
  log_ << "removed entry " << obj->id << ": " << obj->describe() << std::endl;
}

kr::message AddressList::place(kr::SecObject* obj, kr::SecObject* next) {
  AddressEntry* e = entry(obj);
  if (e->address.empty()) return kr::errorMsg(kr::ERROR_MISSING, "an address (string 1) is needed");
  if (next == obj) return kr::message();  // stays where it is
  if (e->placed) order.erase(e->place);
  e->place = order.insert(next ? entry(next)->place : order.end(), e);
  e->placed = true;
  return kr::message();
}

kr::message AddressList::checkRestore(kr::SecObject* obj) { return place(obj, nullptr); }
kr::message AddressList::checkAdd(kr::SecObject* obj, kr::SecObject* next) { return place(obj, next); }
kr::message AddressList::checkSet(kr::SecObject*, kr::SecObject* obj, kr::SecObject* next) {
  return place(obj, next);
}

kr::message AddressList::checkRemove(kr::SecObject* obj) {
  AddressEntry* e = entry(obj);
  if (e->placed) order.erase(e->place);
  e->placed = false;
  return kr::message();
}

kr::SecObject* AddressList::prevObj(kr::SecObject* obj) {
  AddressEntry* e = entry(obj);
  if (!e->placed || e->place == order.begin()) return nullptr;
  return *std::prev(e->place);
}

kr::SecObject* AddressList::nextObj(kr::SecObject* obj, kr::message&) {
  if (!obj) return order.empty() ? nullptr : order.front();
  AddressEntry* e = entry(obj);
  if (!e->placed) return nullptr;
  auto it = std::next(e->place);
  return it == order.end() ? nullptr : *it;
}

void AddressList::copyObj(kr::SecObject* dst, kr::SecObject* src) {
  // The state only: the copy is not placed in the order.
  AddressEntry* d = entry(dst);
  AddressEntry* s = entry(src);
  d->address = s->address;
  d->description = s->description;
  d->disabled = s->disabled;
}

}  // namespace example
