// kr::SecObject and kr::ASecMap: the persistent configuration tables that
// services expose on the bus.
//
// An ASecMap is a kr::Handler that owns a set of SecObjects keyed by a 32-bit
// id and answers the standard object commands: CMD_GETOBJ, CMD_SETOBJ,
// CMD_ADDOBJ, CMD_REMOVEOBJ, CMD_MOVEOBJ, CMD_GETALL (in pages of at most
// 1000 objects and 16384 flat bytes) and, for tables of exactly one object,
// CMD_GET and CMD_SET. It hands out the ids, keeps storable objects in a
// kr::Store table (restored by init()), announces changes to subscribers
// with notifyChange() and sends an undo record for every change a user made.
// What an object holds and what a valid change is stays with the subclass,
// through the hooks below; the map supplies the protocol, the ids, the order
// and the persistence.
//
//   class Routes : public kr::ASecMap {
//     Routes() : ASecMap("/rw/store/routes", 1, 0xFFFF, true) {}
//     ... the hooks ...
//   };
//   Routes routes;  looper.addHandler(40, &routes);  routes.init();
//
// Order. An ordered map keeps a user-visible order that the subclass owns
// (prevObj()/nextObj()); the map persists it as a chain: every stored record
// carries STD_NEXTID, the id of the next storable object (0xFFFFFFFF for the
// last), and the order record under kOrderRecord names the first. The
// subclass puts an object in its place when it accepts it: in checkAdd()
// (before `next`), checkSet() (moved before `next`), checkRestore() (at the
// end: restore runs in chain order), and takes it out in checkRemove(). The
// map writes the neighbours' records right after those hooks, so the order
// must already be right by then.
//
// Storage. Records are written as changes happen unless setAutoStore(false)
// is in force; then the ids collect and setAutoStore(true) (or flushConfig())
// writes them in one pass. The order record is always written at once.
// Records whose flat form reaches 65536 bytes are not stored (kr::Store).
//
// Ownership: the map owns the objects in it from add()/acceptance until
// remove()/CMD_REMOVEOBJ, which delete them. The map's destructor does NOT
// delete the objects still in it: a subclass deletes them in its own
// destructor (it usually keeps them in its own structures too). The `before`
// of checkSet()/objChanged() is a copy that is deleted after the call, and
// an object refused by checkAdd()/checkRestore() is deleted at once.
//
// Threading: event-loop thread only. Store writes block on the store service.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kr/bus/handler.h"
#include "kr/message/message.h"
#include "kr/store/allocator.h"

namespace kr {

class ASecMap;
class Store;
namespace internal {
struct SecTree;
}

// One row of a table.
class SecObject {
 public:
  static constexpr unsigned int kNoId = 0xFFFFFFFF;
  // save()/load() flags: bus traffic, and the store (top bit set). A flags
  // word that comes from a request is passed on with its top bit cleared, so
  // a caller can never make an object write its store-only fields.
  static constexpr unsigned int kBusFlags = 5;
  static constexpr unsigned int kStoreFlags = 0x80000005;
  static constexpr unsigned int kStoreBit = 0x80000000;

  SecObject() = default;
  // The tree links must never be copied: copyObj() copies the state.
  SecObject(const SecObject&) = delete;
  SecObject& operator=(const SecObject&) = delete;
  virtual ~SecObject() = default;

  // The object is persisted in the map's store.
  virtual bool isStorable() = 0;
  // Changes to it produce undo records.
  virtual bool hasUndo() = 0;
  // Changes to it are announced to subscribers.
  virtual bool notifies() = 0;
  // What undo texts call it: describe() + " added".
  virtual std::string describe() = 0;
  // Writes its fields into m / reads them from m (fields that m lacks are
  // left as they are, so a CMD_SETOBJ may carry only what changes).
  virtual void save(message& m, unsigned int flags) = 0;
  virtual void load(const message& m, unsigned int flags) = 0;

  // kNoId while the object is in no map.
  unsigned int id = kNoId;

 private:
  friend struct internal::SecTree;
  // The map's id tree (AVL) is threaded through the objects themselves, so
  // adding an object allocates nothing beyond the object.
  SecObject* left_ = nullptr;
  SecObject* right_ = nullptr;
  int height_ = 0;
};

class ASecMap : public Handler {
 public:
  // The store id of an ordered map's order record.
  static constexpr unsigned int kOrderRecord = 0xFFFFFFFE;
  // STD_NEXTID of the last object; also "append" in CMD_ADDOBJ.
  static constexpr unsigned int kEndOfChain = 0xFFFFFFFF;
  // Paging of CMD_GETALL.
  static constexpr unsigned int kPageObjects = 1000;
  static constexpr size_t kPageBytes = 16384;
  // Flag bit of CMD_GET/CMD_GETALL: the answer also carries a new object's
  // defaults (getDefaultCfg()) in the message field 0xfe001d.
  static constexpr unsigned int kWithDefaults = 0x20000000;

  // Ids are handed out from [start, end]. An empty `path` makes a map that
  // persists nothing; otherwise the store table is opened (and its ids
  // listed) here, and init() restores from it.
  ASecMap(const std::string& path, unsigned int start, unsigned int end, bool ordered);
  // Closes the store and forgets the objects without deleting them (see
  // the top of this file).
  ~ASecMap() override;

  // ---- The object commands (see the command table of kr::Handler) ---------
  // CMD_GET/CMD_SET answer "no obj" or "more than one obj" unless the map
  // holds exactly one object. Unlike CMD_SETOBJ, CMD_SET records its undo
  // whatever hasUndo() says and does not call objChanged().
  message cmdGet(const message& req) override;
  message cmdSet(const message& req) override;
  message cmdGetObj(const message& req, unsigned int objId) override;
  message cmdSetObj(const message& req, unsigned int objId) override;
  message cmdGetAll(const message& req, unsigned int startId, unsigned int count) override;
  // STD_ID, when given, must lie in [start, end] (ERROR_UNKNOWNID) and be
  // free (ERROR_EXISTS); without it the next id is taken, or the add is
  // refused with ERROR_TOOMUCH when none is left. STD_NEXTID places it:
  // 0 first, 0xFFFFFFFF (or none) last, else before that object
  // (ERROR_UNKNOWNNEXTID when there is none). The answer carries STD_ID.
  message cmdAddObj(const message& req) override;
  message cmdRemoveObj(const message& req, unsigned int objId) override;
  // A CMD_SETOBJ whose STD_NEXTID place defaults to the end, not to where
  // the object stands.
  message cmdMoveObj(const message& req, unsigned int objId) override;
  // The object as CMD_GETOBJ answers it; for a missing one {STD_ID, STD_DEAD
  // = 1}. This is what subscribers receive (notifyObject()).
  virtual message getObject(unsigned int objId, unsigned int flags);
  message notifyObject(unsigned int objId, unsigned int detail) override;

  // A new object's save(…, 5), for forms that show the defaults.
  virtual message getDefaultCfg();
  // Restores the objects from the store; called once by the service after
  // construction, nothing without a store. An ordered map follows the chain
  // from its order record. When that record is missing, has no STD_NEXTID
  // or names a record the store lacks, the record is deleted, every record
  // is read in id order instead and the order record is written again. A
  // record the subclass refuses is deleted. Problems are reported on
  // standard output ("ASecMap[ID]: store does not have ORDER_ID", ...) and
  // never stop the start.
  virtual void init();

  // ---- For the service's own objects --------------------------------------
  // Takes o into the map: its id (kNoId: a fresh one) is claimed, it is
  // stored if `persist` and storable, and announced. No check hook runs and
  // no neighbour's record is rewritten: in an ordered map the service places
  // it and fixes the chain itself.
  void add(SecObject* o, bool persist);
  // Deletes o from the store and the map, announces it, and deletes it.
  void remove(SecObject* o);
  // o changed: stored if `persist` and storable, then announced. `fields` is
  // for subclasses that track what changed; the map does not read it.
  void changed(SecObject* o, bool persist, const std::vector<unsigned int>& fields);

  // ---- Persistence -------------------------------------------------------------
  // Writes o's record now.
  void saveObj(SecObject* o);
  // Writes o's record (or notes its id while auto-store is off). With null,
  // an ordered map rewrites its order record, always at once.
  void storeObj(SecObject* o);
  // Deletes record `objId` (or notes it while auto-store is off).
  void removeObj(unsigned int objId);
  // Rebuilds one object from its record `objId` (an id already taken gets a
  // fresh one) and takes it in if checkRestore() accepts it; else deletes
  // the record. In an ordered map a record without STD_NEXTID is written
  // again, with its predecessor's.
  void restoreObj(const message& m, unsigned int objId);
  // Writes or deletes every noted record, in ascending id order.
  void flushConfig();
  // Off: changes only note their ids. On again: flushConfig().
  void setAutoStore(bool on);

  // ---- Order ---------------------------------------------------------------------
  // STD_NEXTID = the id after o (nextObj) / the next storable one; kEndOfChain
  // for none. Ordered maps only: an unordered map writes nothing.
  void addNextID(message& m, SecObject* o);
  void addNextStorableID(message& m, SecObject* o);
  // The nearest storable object after / before o in order, or null.
  // getNextStorableObj(null) is the first storable object.
  SecObject* getNextStorableObj(SecObject* o);
  SecObject* getPrevStorableObj(SecObject* o);

  // ---- Lookup by id ----------------------------------------------------------------
  // The object with `objId`, or null.
  SecObject* findObj(unsigned int objId) const;
  // Id order: the lowest object, the one after / before o (o need not be in
  // the map any more). Null at the ends. An unordered map's nextObj() is
  // usually nextById().
  SecObject* firstById() const;
  SecObject* nextById(const SecObject* o) const;
  SecObject* prevById(const SecObject* o) const;
  size_t size() const { return count; }

  bool isOrdered() const { return ordered; }
  bool autoStoreOn() const { return autoStore; }
  // The store table, or null for a map without one.
  Store* table() const { return store.get(); }
  // "ASecMap[ID]: ", the prefix of the map's lines.
  std::string dbg() const;

 protected:
  // ---- The subclass's hooks ----------------------------------------------------
  // A check hook returns the reply: an error message (errorMsg/failedMsg)
  // refuses the change, anything else accepts it and is sent back.
  virtual message checkRestore(SecObject* obj) = 0;
  // A new object, to stand before `next` (null: at the end).
  virtual message checkAdd(SecObject* obj, SecObject* next) = 0;
  // obj changed (already loaded); `before` is a copy of its old state.
  virtual message checkSet(SecObject* before, SecObject* obj, SecObject* next) = 0;
  virtual message checkRemove(SecObject* obj) = 0;
  // After an accepted change.
  virtual void objAdded(SecObject* obj) = 0;
  virtual void objChanged(SecObject* before, SecObject* obj) = 0;
  virtual void objRemoved(SecObject* obj) = 0;
  // The object before obj in order (null: none); the one after it, or with
  // null the first. `scratch` is the subclass's to use.
  virtual SecObject* prevObj(SecObject* obj) = 0;
  virtual SecObject* nextObj(SecObject* obj, message& scratch) = 0;
  // A new, empty object of the subclass's type, and a copy of all state.
  virtual SecObject* newObj() = 0;
  virtual void copyObj(SecObject* dst, SecObject* src) = 0;

 private:
  SecObject* next(SecObject* o);
  // {STD_ID, o's fields, STD_NEXTID}: one object of an answer.
  message objectMessage(SecObject* o, unsigned int flags);
  // The single object of a CMD_GET/CMD_SET map, or the failure to answer.
  SecObject* onlyObject(message* failure);
  // Applies STD_NEXTID of a request to *place, the object to stand before:
  // 0 is the first object; 0xFFFFFFFF and `self` leave *place alone. False
  // when it names no object.
  bool placeFromRequest(const message& req, unsigned int self, SecObject** place);
  // The start-up steps of init(). restoreChain() is false when the chain
  // was unusable and every record is to be read instead.
  bool restoreChain();
  void restoreAll();

  // Ids whose record waits for the next flush (auto-store off).
  std::set<unsigned int> pending;
  Allocator ids;
  unsigned int idStart, idEnd;  // the interval of `ids`, for CMD_ADDOBJ's check
  std::unique_ptr<Store> store;  // null: nothing is persisted
  bool ordered;
  bool autoStore = true;
  SecObject* root = nullptr;
  size_t count = 0;
};

}  // namespace kr
