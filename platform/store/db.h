// kr-store's database: every store's objects in one SQLite file.
//
//   std::string error;
//   auto db = Database::open("/ram/store/kr-store.db", &error);
//   if (!db) { log(error); return 3; }       // refused: never replaced
//   Database::StoreInfo s;
//   db->findOrCreate("addresses", &s);       // s.sid is stable for the name
//   db->put(s.sid, 7, bytes);                // on disk when it returns true
//
// The file (schema version 1, PRAGMA user_version):
//   stores(sid INTEGER PRIMARY KEY, name BLOB UNIQUE, written INTEGER)
//       one row per store name ever listed; `written` is 0 until the first
//       object is written and again after a reset, which is the "fresh"
//       flag of a listing.
//   objects(sid, id, data BLOB, PRIMARY KEY (sid, id))
//       the objects, opaque bytes (flat messages, not looked into).
//   settings(key TEXT PRIMARY KEY, value)
//       "reset_pending" = 1: erase every object at the next start;
//       in a backup only, "label" and "created" (Unix seconds).
//
// Durability: WAL journal with synchronous=FULL, one transaction per
// change, so a change is in the log and synced when its call returns: it
// survives the service being killed and a power cut. The connection runs
// in exclusive locking mode: a second kr-store on the same file is refused
// instead of sharing it.
//
// Failures are soft: false (or kFailed) and error() says why. Nothing
// throws. One connection, used from the event-loop thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kr::storesvc {

// A prepared statement, finalized with its owner.
class Statement {
 public:
  Statement() = default;
  ~Statement();
  Statement(Statement&& o) noexcept;
  Statement& operator=(Statement&& o) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepare(sqlite3* db, const char* sql);
  sqlite3_stmt* get() const { return s_; }

 private:
  sqlite3_stmt* s_ = nullptr;
};

class Database {
 public:
  static constexpr int kSchemaVersion = 1;

  // Opens the database at `path`, creating an empty one when no file is
  // there. Null, with a one-line *error, when the file is not a database,
  // fails SQLite's quick check, holds tables that are not ours, has a newer
  // schema, or is in use by another process: such a file is left exactly as
  // it is. Carries out a reset scheduled for this start (*wasReset = true).
  static std::unique_ptr<Database> open(const std::string& path, std::string* error, bool* wasReset);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  struct StoreInfo {
    uint32_t sid = 0;
    bool fresh = true;     // nothing written since it was made or reset
    uint32_t largest = 0;  // bytes of its largest object
  };
  // The store of `name`, made (and given the next free sid) if unknown.
  bool findOrCreate(std::string_view name, StoreInfo* out);
  bool hasStore(uint32_t sid, bool* exists);
  // Up to `max` ids of store `sid` above `after` (kNoId: from the start),
  // ascending.
  bool listIds(uint32_t sid, uint32_t after, size_t max, std::vector<uint32_t>* out);
  // Calls take(id, bytes) for the objects of `sid` from id `first` on, in
  // id order, until it returns false. The bytes are valid during the call.
  using EntrySink = std::function<bool(uint32_t id, std::span<const unsigned char> data)>;
  bool readFrom(uint32_t sid, uint32_t first, const EntrySink& take);
  // Writes or replaces one object (data not empty), or deletes it (a
  // missing object is not an error).
  bool put(uint32_t sid, uint32_t id, std::span<const unsigned char> data);
  bool erase(uint32_t sid, uint32_t id);

  // Erases every object; the stores keep their ids and become fresh.
  bool resetNow();
  // Makes the next open() erase every object.
  bool scheduleReset();

  enum class BackupResult { kOk, kExists, kFailed };
  // A consistent copy of the whole database, written to `path` through a
  // temporary file beside it and renamed into place, so `path` is either
  // the old file or the complete copy. The copy is a self-contained file
  // (rollback journal, no WAL), carries `label` and its creation time, and
  // no scheduled reset. An existing `path` is replaced only when
  // `overwrite`; otherwise kExists.
  BackupResult backup(const std::string& path, bool overwrite, std::string_view label);

  // Why the last call failed.
  const std::string& error() const { return error_; }

 private:
  explicit Database(sqlite3* db) : db_(db) {}
  bool check();
  bool setUp();
  bool isOwnFile(const std::string& path) const;
  bool createSchema();
  bool prepareAll();
  bool exec(const char* sql);
  bool query(const char* sql, std::string* out);
  bool query(const char* sql, int64_t* out);
  bool fail(const char* what);
  bool commitOrRollback(bool ok);
  bool resetPending(bool* pending);

  struct Closer {
    void operator()(sqlite3* db) const;
  };
  std::unique_ptr<sqlite3, Closer> db_;
  // Declared after db_, so they are finalized before it closes.
  Statement findStore_, insertStore_, hasStore_, largest_, listIds_, readFrom_, upsert_, markWritten_, erase_,
      getSetting_, setSetting_;
  std::string error_;
};

}  // namespace kr::storesvc
