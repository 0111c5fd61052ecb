#include "kr/store/secmap.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/store/store.h"

namespace kr {
namespace {

// The flags word of a request (a detail level to most handlers).
constexpr u32_id kFlags{0xFE000C};
constexpr message_id kDefaults{0xFE001D};
constexpr unsigned int kRequestFlagMask = 0x7FFFFFFF;

unsigned int requestFlags(const message& req) { return req.get(kFlags, SecObject::kBusFlags); }

bool refused(const message& r) { return isError(r, nullptr, nullptr); }

}  // namespace

// The id tree: an AVL tree linked through the objects. Recursion depth is
// the tree's height, under 1.5 log2(n).
struct internal::SecTree {
  static int height(const SecObject* n) { return n ? n->height_ : 0; }
  static void fix(SecObject* n) { n->height_ = 1 + std::max(height(n->left_), height(n->right_)); }

  static SecObject* rotateRight(SecObject* n) {
    SecObject* l = n->left_;
    n->left_ = l->right_;
    l->right_ = n;
    fix(n);
    fix(l);
    return l;
  }
  static SecObject* rotateLeft(SecObject* n) {
    SecObject* r = n->right_;
    n->right_ = r->left_;
    r->left_ = n;
    fix(n);
    fix(r);
    return r;
  }
  static SecObject* balance(SecObject* n) {
    fix(n);
    const int b = height(n->left_) - height(n->right_);
    if (b > 1) {
      if (height(n->left_->left_) < height(n->left_->right_)) n->left_ = rotateLeft(n->left_);
      return rotateRight(n);
    }
    if (b < -1) {
      if (height(n->right_->right_) < height(n->right_->left_)) n->right_ = rotateRight(n->right_);
      return rotateLeft(n);
    }
    return n;
  }

  static SecObject* insert(SecObject* n, SecObject* o) {
    if (!n) {
      o->left_ = o->right_ = nullptr;
      o->height_ = 1;
      return o;
    }
    if (o->id < n->id) n->left_ = insert(n->left_, o);
    else n->right_ = insert(n->right_, o);
    return balance(n);
  }
  static SecObject* takeMin(SecObject* n, SecObject** min) {
    if (!n->left_) {
      *min = n;
      return n->right_;
    }
    n->left_ = takeMin(n->left_, min);
    return balance(n);
  }
  static SecObject* erase(SecObject* n, unsigned int id) {
    if (!n) return nullptr;
    if (id < n->id) {
      n->left_ = erase(n->left_, id);
    } else if (id > n->id) {
      n->right_ = erase(n->right_, id);
    } else {
      SecObject* l = n->left_;
      SecObject* r = n->right_;
      n->left_ = n->right_ = nullptr;
      n->height_ = 0;
      if (!r) return l;
      SecObject* m = nullptr;
      r = takeMin(r, &m);
      m->left_ = l;
      m->right_ = r;
      return balance(m);
    }
    return balance(n);
  }

  static SecObject* first(SecObject* n) {
    while (n && n->left_) n = n->left_;
    return n;
  }
  static SecObject* find(SecObject* n, unsigned int id) {
    while (n && n->id != id) n = id < n->id ? n->left_ : n->right_;
    return n;
  }
  static SecObject* above(SecObject* n, unsigned int id) {
    SecObject* best = nullptr;
    while (n) {
      if (n->id > id) {
        best = n;
        n = n->left_;
      } else {
        n = n->right_;
      }
    }
    return best;
  }
  static SecObject* below(SecObject* n, unsigned int id) {
    SecObject* best = nullptr;
    while (n) {
      if (n->id < id) {
        best = n;
        n = n->right_;
      } else {
        n = n->left_;
      }
    }
    return best;
  }
};

using internal::SecTree;

// ---- Construction and lookup -------------------------------------------------------

ASecMap::ASecMap(const std::string& path, unsigned int start, unsigned int end, bool ordered)
    : ids(start, end), idStart(start), idEnd(end), ordered(ordered) {
  if (!path.empty()) store = std::make_unique<Store>(path);
}

ASecMap::~ASecMap() {
  // The objects belong to the subclass by now (see the header).
  root = nullptr;
  count = 0;
}

std::string ASecMap::dbg() const { return "ASecMap[" + std::to_string(id) + "]: "; }

SecObject* ASecMap::findObj(unsigned int objId) const { return SecTree::find(root, objId); }

SecObject* ASecMap::firstById() const { return SecTree::first(root); }

SecObject* ASecMap::nextById(const SecObject* o) const { return SecTree::above(root, o->id); }
SecObject* ASecMap::prevById(const SecObject* o) const { return SecTree::below(root, o->id); }

SecObject* ASecMap::next(SecObject* o) {
  message scratch;
  return nextObj(o, scratch);
}

// ---- Order helpers -------------------------------------------------------------------

SecObject* ASecMap::getNextStorableObj(SecObject* o) {
  do {
    o = next(o);
  } while (o && !o->isStorable());
  return o;
}

SecObject* ASecMap::getPrevStorableObj(SecObject* o) {
  while (o) {
    o = prevObj(o);
    if (o && o->isStorable()) return o;
  }
  return nullptr;
}

void ASecMap::addNextID(message& m, SecObject* o) {
  if (!ordered) return;
  SecObject* n = next(o);
  m.insert(STD_NEXTID, n ? n->id : kEndOfChain);
}

void ASecMap::addNextStorableID(message& m, SecObject* o) {
  if (!ordered) return;
  SecObject* n = getNextStorableObj(o);
  m.insert(STD_NEXTID, n ? n->id : kEndOfChain);
}

// ---- Persistence ----------------------------------------------------------------------

void ASecMap::saveObj(SecObject* o) {
  if (!store) return;
  message rec;
  rec.insert(STD_ID, o->id);
  o->save(rec, SecObject::kStoreFlags);
  addNextStorableID(rec, o);
  store->set(o->id, rec);
}

void ASecMap::storeObj(SecObject* o) {
  if (!store) return;
  if (o) {
    if (autoStore) saveObj(o);
    else pending.insert(o->id);
    return;
  }
  // The order record is written at once even while auto-store is off: it is
  // one small record, and batching only pays for the objects.
  if (!ordered) return;
  message rec;
  addNextStorableID(rec, nullptr);
  store->set(kOrderRecord, rec);
}

void ASecMap::removeObj(unsigned int objId) {
  if (!store) return;
  if (autoStore) store->remove(objId);
  else pending.insert(objId);
}

void ASecMap::flushConfig() {
  if (store) {
    for (unsigned int objId : pending) {
      SecObject* o = findObj(objId);
      if (o && o->isStorable()) saveObj(o);
      else store->remove(objId);
    }
  }
  pending.clear();
}

void ASecMap::setAutoStore(bool on) {
  autoStore = on;
  if (on) flushConfig();
}

// ---- Restore ---------------------------------------------------------------------------

void ASecMap::init() {
  if (!store) return;
  if (ordered && restoreChain()) return;
  restoreAll();
  const Allocator& held = store->objectIds();
  if (ordered && held.begin() != held.end()) storeObj(nullptr);
}

// Follows the chain from the order record. A record without STD_NEXTID ends
// the walk (restoreObj() repairs it). The chain can also loop back onto
// itself when the service went down between the writes of one move; the
// walk stops there and cuts the loop rather than spin at start-up.
bool ASecMap::restoreChain() {
  if (!store->has(kOrderRecord)) {
    std::cout << dbg() << "store does not have ORDER_ID" << std::endl;
    return false;
  }
  const message order = store->get(kOrderRecord);
  unsigned int rid;
  if (!order.extract(STD_NEXTID, rid)) {
    std::cout << dbg() << "store ORDER_ID does not contain STD_NEXTID" << std::endl;
    store->remove(kOrderRecord);
    return false;
  }
  // The store counts ids outside its own range as held, so the end mark and
  // the order record's own id are tested first.
  auto held = [this](unsigned int r) { return r != kEndOfChain && r != kOrderRecord && store->has(r); };
  if (rid != kEndOfChain && !held(rid)) {
    std::cout << dbg() << "store does not have nextID obj " << rid << std::endl;
    store->remove(kOrderRecord);
    return false;
  }
  std::set<unsigned int> seen;
  unsigned int last = kEndOfChain;
  while (held(rid)) {
    if (!seen.insert(rid).second) {
      std::cout << dbg() << "store chain returns to " << rid << std::endl;
      if (SecObject* o = findObj(last)) storeObj(o);
      break;
    }
    const message rec = store->get(rid);
    restoreObj(rec, rid);
    last = rid;
    rid = rec.get(STD_NEXTID, kEndOfChain);
  }
  return true;
}

void ASecMap::restoreAll() {
  // restoreObj() deletes and rewrites records: walk a copy of the ids.
  const Allocator& held = store->objectIds();
  const std::vector<unsigned int> all(held.begin(), held.end());
  for (unsigned int rid : all) {
    if (rid == kOrderRecord) continue;  // never an object, even in a map that stopped being ordered
    restoreObj(store->get(rid), rid);
  }
}

void ASecMap::restoreObj(const message& m, unsigned int rid) {
  SecObject* o = newObj();
  o->load(m, SecObject::kStoreFlags);
  // An id that is taken (or outside the map's interval, which counts as
  // taken) gets a fresh one rather than stop the restore.
  o->id = ids.isAllocated(rid) ? ids.allocate() : ids.allocate(rid);
  const message r = checkRestore(o);
  unsigned int code = 0;
  std::string text;
  if (isError(r, &code, &text)) {
    if (store) store->remove(rid);
    ids.free(o->id);
    delete o;
    std::cout << "load from store error: " << text << " (" << code << ")" << std::endl;
    return;
  }
  root = SecTree::insert(root, o);
  ++count;
  objAdded(o);
  if (ordered && !m.has(STD_NEXTID)) {
    // The chain through this record is broken: write it and its
    // predecessor's again.
    storeObj(o);
    storeObj(getPrevStorableObj(o));
  }
}

// ---- The service's own objects --------------------------------------------------------

void ASecMap::add(SecObject* o, bool persist) {
  o->id = o->id == SecObject::kNoId ? ids.allocate() : ids.allocate(o->id);
  root = SecTree::insert(root, o);
  ++count;
  changed(o, persist, {});
}

void ASecMap::changed(SecObject* o, bool persist, const std::vector<unsigned int>&) {
  if (persist && o->isStorable()) storeObj(o);
  if (o->notifies()) notifyChange(o->id);
}

void ASecMap::remove(SecObject* o) {
  const unsigned int objId = o->id;
  if (o->isStorable()) removeObj(objId);
  root = SecTree::erase(root, objId);
  --count;
  ids.free(objId);
  const bool notifying = o->notifies();
  delete o;
  if (notifying) notifyChange(objId);
}

// ---- Object commands -------------------------------------------------------------------

message ASecMap::objectMessage(SecObject* o, unsigned int flags) {
  message m;
  m.insert(STD_ID, o->id);
  o->save(m, flags & kRequestFlagMask);
  addNextID(m, o);
  return m;
}

message ASecMap::getObject(unsigned int objId, unsigned int flags) {
  if (SecObject* o = findObj(objId)) return objectMessage(o, flags);
  message dead;
  dead.insert(STD_ID, objId);
  dead.insert(STD_DEAD, 1u);
  return dead;
}

message ASecMap::notifyObject(unsigned int objId, unsigned int detail) { return getObject(objId, detail); }

message ASecMap::getDefaultCfg() {
  SecObject* o = newObj();
  message m;
  o->save(m, SecObject::kBusFlags);
  delete o;
  return m;
}

message ASecMap::cmdGetObj(const message& req, unsigned int objId) {
  SecObject* o = findObj(objId);
  if (!o) return errorMsg(ERROR_UNKNOWNID, "");
  return objectMessage(o, requestFlags(req));
}

message ASecMap::cmdGetAll(const message& req, unsigned int startId, unsigned int limit) {
  SecObject* o;
  if (startId != kEndOfChain) {
    o = findObj(startId);
    if (!o) return errorMsg(ERROR_UNKNOWNID, "");
  } else {
    o = next(nullptr);
  }
  if (limit == 0 || limit > kPageObjects) limit = kPageObjects;
  const unsigned int flags = requestFlags(req);
  std::vector<flat_message> page;
  size_t bytes = 0;
  // An object too big for a page on its own is never sent: the page stops
  // before it and names it again, so the client sees where the table is stuck.
  while (o && page.size() < limit) {
    flat_message flat;
    objectMessage(o, flags).flatten(flat);
    if (bytes + flat.size() > kPageBytes) break;
    bytes += flat.size();
    page.push_back(std::move(flat));
    o = next(o);
  }
  message reply;
  if (o) reply.insert(STD_GETALLID, o->id);
  // Present even when empty: a page without STD_OBJS reads as a failure.
  reply.insert(STD_OBJS, std::move(page));
  if (flags & kWithDefaults) reply.insert(kDefaults, getDefaultCfg());
  return reply;
}

bool ASecMap::placeFromRequest(const message& req, unsigned int self, SecObject** place) {
  unsigned int n;
  if (!req.extract(STD_NEXTID, n) || n == kEndOfChain || n == self) return true;
  if (n == 0) {
    *place = next(nullptr);
    return true;
  }
  *place = findObj(n);
  return *place != nullptr;
}

message ASecMap::cmdAddObj(const message& req) {
  SecObject* place = nullptr;
  if (ordered && !placeFromRequest(req, SecObject::kNoId, &place)) return errorMsg(ERROR_UNKNOWNNEXTID, "");
  unsigned int objId = req.get(STD_ID, SecObject::kNoId);
  if (objId != SecObject::kNoId) {
    if (objId < idStart || objId > idEnd) return errorMsg(ERROR_UNKNOWNID, "");
    if (ids.isAllocated(objId) || findObj(objId)) return errorMsg(ERROR_EXISTS, "");
    ids.allocate(objId);
  } else {
    // A full table refuses; the allocator would end the process, and a
    // request must not be able to do that.
    if (ids.unusedCount() == 0) return errorMsg(ERROR_TOOMUCH, "");
    objId = ids.allocate();
  }
  SecObject* o = newObj();
  o->load(req, SecObject::kBusFlags);
  o->id = objId;
  message r = checkAdd(o, place);
  if (refused(r)) {
    ids.free(objId);
    delete o;
    return r;
  }
  root = SecTree::insert(root, o);
  ++count;
  if (o->isStorable()) {
    storeObj(o);
    if (ordered) storeObj(getPrevStorableObj(o));
  }
  objAdded(o);
  if (o->notifies()) notifyChange(objId);
  if (o->hasUndo()) {
    message undo;
    undo.insert(SYS_CMD, CMD_REMOVEOBJ);
    undo.insert(STD_ID, objId);
    sendUndo(req, undo, o->describe() + " added");
  }
  r.insert(STD_ID, objId);
  return r;
}

message ASecMap::cmdRemoveObj(const message& req, unsigned int objId) {
  SecObject* o = findObj(objId);
  if (!o) return errorMsg(ERROR_UNKNOWNID, "");
  const bool storable = o->isStorable();
  const bool undoable = o->hasUndo();
  const bool notifying = o->notifies();
  // The undo adds it again, under its id and in its place.
  message undo;
  if (undoable) {
    undo.insert(SYS_CMD, CMD_ADDOBJ);
    undo.insert(STD_ID, objId);
    o->save(undo, SecObject::kBusFlags);
    addNextStorableID(undo, o);
  }
  SecObject* prev = storable && ordered ? getPrevStorableObj(o) : nullptr;
  message r = checkRemove(o);
  if (refused(r)) return r;
  root = SecTree::erase(root, objId);
  --count;
  ids.free(objId);
  if (storable) removeObj(objId);
  // prev's record pointed at o; with no prev the order record did.
  storeObj(prev);
  objRemoved(o);
  const std::string text = o->describe();
  delete o;
  if (notifying) notifyChange(objId);
  if (undoable) sendUndo(req, undo, text + " removed");
  return r;
}

message ASecMap::cmdSetObj(const message& req, unsigned int objId) {
  SecObject* o = findObj(objId);
  if (!o) return errorMsg(ERROR_UNKNOWNID, "");
  // A set keeps the object where it stands, a move without STD_NEXTID takes
  // it to the end.
  SecObject* place = ordered && req.get(SYS_CMD) != CMD_MOVEOBJ ? next(o) : nullptr;
  if (!placeFromRequest(req, objId, &place)) return errorMsg(ERROR_UNKNOWNNEXTID, "");
  const bool hadUndo = o->hasUndo();
  message undo;
  if (hadUndo) {
    undo.insert(SYS_CMD, CMD_SETOBJ);
    undo.insert(STD_ID, objId);
    o->save(undo, SecObject::kBusFlags);
    addNextStorableID(undo, o);
  }
  SecObject* before = newObj();
  copyObj(before, o);
  before->id = objId;
  const bool wasStorable = o->isStorable();
  SecObject* oldPrev = wasStorable && ordered ? getPrevStorableObj(o) : nullptr;
  o->load(req, SecObject::kBusFlags);
  message r = checkSet(before, o, place);
  if (refused(r)) {
    copyObj(o, before);
    delete before;
    return r;
  }
  if (o->isStorable()) {
    storeObj(o);
    if (ordered) {
      // Moved: the old neighbour now points past it, the new one at it.
      SecObject* newPrev = getPrevStorableObj(o);
      if (newPrev != oldPrev) {
        storeObj(oldPrev);
        storeObj(newPrev);
      }
    }
  } else if (wasStorable) {
    removeObj(objId);
    if (ordered) storeObj(getPrevStorableObj(o));
  }
  objChanged(before, o);
  if (o->notifies()) notifyChange(objId);
  if (hadUndo && o->hasUndo()) sendUndo(req, undo, o->describe() + " changed");
  delete before;
  return r;
}

message ASecMap::cmdMoveObj(const message& req, unsigned int objId) { return cmdSetObj(req, objId); }

SecObject* ASecMap::onlyObject(message* failure) {
  if (count == 1) return root;
  *failure = failedMsg(count == 0 ? "no obj" : "more than one obj");
  return nullptr;
}

message ASecMap::cmdGet(const message& req) {
  message failure;
  SecObject* o = onlyObject(&failure);
  if (!o) return failure;
  const unsigned int flags = requestFlags(req);
  message reply;
  if (flags & kWithDefaults) reply.insert(kDefaults, getDefaultCfg());
  o->save(reply, flags & kRequestFlagMask);
  return reply;
}

// Unlike CMD_SETOBJ, a set of the single object records its undo whatever
// hasUndo() says and does not call objChanged(): single-object tables have
// always behaved so, and their services are written against it.
message ASecMap::cmdSet(const message& req) {
  message failure;
  SecObject* o = onlyObject(&failure);
  if (!o) return failure;
  message undo;
  undo.insert(SYS_CMD, CMD_SET);
  o->save(undo, SecObject::kBusFlags);
  SecObject* before = newObj();
  copyObj(before, o);
  before->id = o->id;
  SecObject* place = ordered ? next(o) : nullptr;
  o->load(req, SecObject::kBusFlags);
  message r = checkSet(before, o, place);
  if (refused(r)) {
    copyObj(o, before);
    delete before;
    return r;
  }
  if (o->isStorable()) storeObj(o);
  if (o->notifies()) notifyChange(o->id);
  sendUndo(req, undo, o->describe() + " changed");
  delete before;
  return r;
}

}  // namespace kr
