// AddressList: the example daemon's configuration table, an ordered list of
// address entries kept by the store service.
//
// Each entry is an address (string 1, such as "192.0.2.0/24"), a
// description (STD_DESCR) and a disabled flag (STD_DISABLED). The user's
// order matters (think of a list of rules read top to bottom), so the map is
// ordered: CMD_ADDOBJ and CMD_MOVEOBJ place an entry before the one named
// by STD_NEXTID. Every change is written to the store service before it is
// answered, announced to subscribers, and survives a restart of the daemon
// and of the store service.
//
//   kr-cli add 40/20 '{"string:1": "192.0.2.0/24", "string:STD_DESCR": "lab"}'
//   kr-cli getall 40/20
//   kr-cli move 40/20 2 1          # entry 2 before entry 1
#pragma once

#include <list>
#include <string>

#include "examples/log_topics.h"
#include "kr/log/lstream.h"
#include "kr/store/secmap.h"

namespace example {

class AddressEntry : public kr::SecObject {
 public:
  std::string address;
  std::string description;
  bool disabled = false;

  bool isStorable() override { return true; }
  bool hasUndo() override { return true; }
  bool notifies() override { return true; }
  std::string describe() override { return "address " + address; }
  void save(kr::message& m, unsigned int flags) override;
  void load(const kr::message& m, unsigned int flags) override;

 private:
  friend class AddressList;
  std::list<AddressEntry*>::iterator place;  // in AddressList::order
  bool placed = false;
};

class AddressList : public kr::ASecMap {
 public:
  // Ids 1..9999, kept in the store table "example-addresses".
  AddressList();
  ~AddressList() override;

  // Reads the table from the store service (ASecMap::init()); changes
  // after this are logged.
  void start();

 protected:
  kr::message checkRestore(kr::SecObject* obj) override;
  kr::message checkAdd(kr::SecObject* obj, kr::SecObject* next) override;
  kr::message checkSet(kr::SecObject* before, kr::SecObject* obj, kr::SecObject* next) override;
  kr::message checkRemove(kr::SecObject* obj) override;
  void objAdded(kr::SecObject* obj) override;
  void objChanged(kr::SecObject* before, kr::SecObject* obj) override;
  void objRemoved(kr::SecObject* obj) override;
  kr::SecObject* prevObj(kr::SecObject* obj) override;
  kr::SecObject* nextObj(kr::SecObject* obj, kr::message& scratch) override;
  kr::SecObject* newObj() override { return new AddressEntry; }
  void copyObj(kr::SecObject* dst, kr::SecObject* src) override;

 private:
  // Validates the entry and puts it before `next` (null: at the end).
  kr::message place(kr::SecObject* obj, kr::SecObject* next);

  std::list<AddressEntry*> order;
  bool started_ = false;  // restoring adds entries too, silently
  kr::lstream log_{kTopicExample, kTopicTable, 0u};
};

}  // namespace example
