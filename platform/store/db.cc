#include "platform/store/db.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <utility>

#include "kr/util/unique_fd.h"
#include "platform/store/protocol.h"

namespace kr::storesvc {

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE stores(
  sid INTEGER PRIMARY KEY,
  name BLOB NOT NULL UNIQUE,
  written INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE objects(
  sid INTEGER NOT NULL,
  id INTEGER NOT NULL,
  data BLOB NOT NULL,
  PRIMARY KEY (sid, id)
);
CREATE TABLE settings(
  key TEXT PRIMARY KEY,
  value
);
PRAGMA user_version = 1;
)sql";

// One use of a prepared statement: binds, steps, and resets it when the
// use ends, so a statement never stays half-run (which would hold the
// read snapshot open).
class Use {
 public:
  explicit Use(const Statement& s) : s_(s.get()) {}
  ~Use() {
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  Use& bind(int i, int64_t v) {
    ok_ = ok_ && sqlite3_bind_int64(s_, i, v) == SQLITE_OK;
    return *this;
  }
  Use& bind(int i, std::span<const unsigned char> b) {
    // A zero-length blob must not bind as NULL: give SQLite a valid pointer.
    static const unsigned char kNothing = 0;
    ok_ = ok_ && sqlite3_bind_blob64(s_, i, b.empty() ? &kNothing : b.data(), b.size(), SQLITE_STATIC) == SQLITE_OK;
    return *this;
  }
  // Text (settings keys, the backup label); store names bind as blobs.
  Use& bind(int i, std::string_view t) {
    ok_ = ok_ && sqlite3_bind_text64(s_, i, t.data(), t.size(), SQLITE_STATIC, SQLITE_UTF8) == SQLITE_OK;
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE, or an error (also for a failed bind).
  int step() { return ok_ ? sqlite3_step(s_) : SQLITE_MISUSE; }
  int64_t integer(int col) const { return sqlite3_column_int64(s_, col); }
  std::span<const unsigned char> blob(int col) const {
    const auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(s_, col));
    return {p, p ? size_t(sqlite3_column_bytes(s_, col)) : 0};
  }

 private:
  sqlite3_stmt* s_;
  bool ok_ = true;
};

// Store names are bytes, compared as bytes whatever they hold.
std::span<const unsigned char> bytesOf(std::string_view s) {
  return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}

// An id from the wire as SQLite keeps it; kNoId ("from the start") is -1,
// below every object id.
int64_t after(uint32_t id) { return id == kNoId ? -1 : int64_t(id); }

bool syncPath(const std::string& path, int flags) {
  UniqueFd fd(::open(path.c_str(), flags | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

std::string dirOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

// ---- Statement ------------------------------------------------------------------

Statement::~Statement() { sqlite3_finalize(s_); }
Statement::Statement(Statement&& o) noexcept : s_(std::exchange(o.s_, nullptr)) {}
Statement& Statement::operator=(Statement&& o) noexcept {
  sqlite3_finalize(std::exchange(s_, std::exchange(o.s_, nullptr)));
  return *this;
}

bool Statement::prepare(sqlite3* db, const char* sql) {
  sqlite3_finalize(std::exchange(s_, nullptr));
  return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s_, nullptr) == SQLITE_OK;
}

// ---- Opening ------------------------------------------------------------------------

void Database::Closer::operator()(sqlite3* db) const { sqlite3_close(db); }

std::unique_ptr<Database> Database::open(const std::string& path, std::string* error, bool* wasReset) {
  *wasReset = false;
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::unique_ptr<Database> db(new Database(raw));
  if (rc != SQLITE_OK) {
    *error = path + ": cannot open: " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    return nullptr;
  }
  sqlite3_extended_result_codes(raw, 1);
  bool pending = false;
  if (!db->check() || !db->setUp() || !db->resetPending(&pending) || (pending && !db->resetNow())) {
    *error = path + ": " + db->error();
    return nullptr;
  }
  *wasReset = pending;
  return db;
}

// Before anything is written: the file must be a healthy SQLite database.
// The exclusive lock is taken by this first read, so a file another
// kr-store holds is refused here too.
bool Database::check() {
  Statement s;
  int rc = SQLITE_ERROR;
  std::string first;
  int problems = 0;
  if (exec("PRAGMA locking_mode = EXCLUSIVE") && s.prepare(db_.get(), "PRAGMA quick_check")) {
    Use q(s);
    while ((rc = q.step()) == SQLITE_ROW) {
      const auto text = q.blob(0);
      const std::string line(reinterpret_cast<const char*>(text.data()), text.size());
      if (line != "ok" && problems++ == 0) first = line;
    }
  }
  if (rc == SQLITE_DONE && problems == 0) return true;
  if (rc == SQLITE_DONE)
    error_ = "database is corrupt (" + std::to_string(problems) + " problems, the first: " + first + ")";
  else if ((sqlite3_errcode(db_.get()) & 0xFF) == SQLITE_BUSY)
    error_ = "in use by another process (the database is locked)";
  else
    fail("not a usable database");
  return false;
}

bool Database::setUp() {
  std::string mode;
  int64_t schema = 0, tables = 0;
  if (!query("PRAGMA journal_mode = WAL", &mode) || !exec("PRAGMA synchronous = FULL") ||
      !query("PRAGMA user_version", &schema) || !query("SELECT count(*) FROM sqlite_schema", &tables))
    return false;
  if (mode != "wal") {
    error_ = "cannot switch to write-ahead logging (journal mode stays " + mode + ")";
    return false;
  }
  if (schema > kSchemaVersion) {
    error_ = "written by a newer kr-store (schema " + std::to_string(schema) + ")";
    return false;
  }
  if (schema == 0 && tables > 0) {
    error_ = "not a kr-store database (it holds other tables)";
    return false;
  }
  return (schema != 0 || createSchema()) && prepareAll();
}

bool Database::createSchema() {
  return exec("BEGIN IMMEDIATE") && commitOrRollback(exec(kSchema));
}

bool Database::prepareAll() {
  sqlite3* d = db_.get();
  const bool ok =
      findStore_.prepare(d, "SELECT sid, written FROM stores WHERE name = ?1") &&
      insertStore_.prepare(d, "INSERT INTO stores(name) VALUES (?1)") &&
      hasStore_.prepare(d, "SELECT 1 FROM stores WHERE sid = ?1") &&
      // length() of a blob comes from the record header: no object is read.
      largest_.prepare(d, "SELECT coalesce(max(length(data)), 0) FROM objects WHERE sid = ?1") &&
      listIds_.prepare(d, "SELECT id FROM objects WHERE sid = ?1 AND id > ?2 ORDER BY id LIMIT ?3") &&
      readFrom_.prepare(d, "SELECT id, data FROM objects WHERE sid = ?1 AND id >= ?2 ORDER BY id") &&
      upsert_.prepare(d, "INSERT INTO objects(sid, id, data) VALUES (?1, ?2, ?3) "
                         "ON CONFLICT (sid, id) DO UPDATE SET data = excluded.data") &&
      markWritten_.prepare(d, "UPDATE stores SET written = 1 WHERE sid = ?1 AND written = 0") &&
      erase_.prepare(d, "DELETE FROM objects WHERE sid = ?1 AND id = ?2") &&
      getSetting_.prepare(d, "SELECT value FROM settings WHERE key = ?1") &&
      setSetting_.prepare(d, "INSERT OR REPLACE INTO settings(key, value) VALUES (?1, ?2)");
  return ok || fail("preparing statements");
}

Database::~Database() = default;

// ---- Helpers ------------------------------------------------------------------------

bool Database::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  error_ = message ? message : sqlite3_errmsg(db_.get());
  sqlite3_free(message);
  return false;
}

// The first column of the first row of a one-off statement.
bool Database::query(const char* sql, std::string* out) {
  Statement s;
  if (!s.prepare(db_.get(), sql)) return fail(sql);
  Use q(s);
  if (q.step() != SQLITE_ROW) return fail(sql);
  const auto text = q.blob(0);
  out->assign(reinterpret_cast<const char*>(text.data()), text.size());
  return true;
}

bool Database::query(const char* sql, int64_t* out) {
  Statement s;
  if (!s.prepare(db_.get(), sql)) return fail(sql);
  Use q(s);
  if (q.step() != SQLITE_ROW) return fail(sql);
  *out = q.integer(0);
  return true;
}

bool Database::fail(const char* what) {
  error_ = std::string(what) + ": " + sqlite3_errmsg(db_.get());
  return false;
}

// Ends the transaction begun by the caller: COMMIT after success, ROLLBACK
// (keeping the first error) after a failure or a failed COMMIT.
bool Database::commitOrRollback(bool ok) {
  if (ok && exec("COMMIT")) return true;
  const std::string first = error_;
  exec("ROLLBACK");
  error_ = first;
  return false;
}

bool Database::resetPending(bool* pending) {
  Use g(getSetting_);
  const int rc = g.bind(1, std::string_view("reset_pending")).step();
  *pending = rc == SQLITE_ROW && g.integer(0) != 0;
  return rc == SQLITE_ROW || rc == SQLITE_DONE || fail("reading settings");
}

// ---- Stores and objects ----------------------------------------------------------------

bool Database::findOrCreate(std::string_view name, StoreInfo* out) {
  {
    Use f(findStore_);
    const int rc = f.bind(1, bytesOf(name)).step();
    if (rc == SQLITE_ROW) {
      out->sid = uint32_t(f.integer(0));
      out->fresh = f.integer(1) == 0;
    } else if (rc != SQLITE_DONE) {
      return fail("finding a store");
    } else {
      // A new name takes max(sid) + 1. Store ids would run out after four
      // billion names; names are a daemon's tables, a few dozen.
      Use i(insertStore_);
      if (i.bind(1, bytesOf(name)).step() != SQLITE_DONE) return fail("adding a store");
      out->sid = uint32_t(sqlite3_last_insert_rowid(db_.get()));
      out->fresh = true;
    }
  }
  Use l(largest_);
  if (l.bind(1, out->sid).step() != SQLITE_ROW) return fail("measuring a store");
  out->largest = uint32_t(l.integer(0));
  return true;
}

bool Database::hasStore(uint32_t sid, bool* exists) {
  Use h(hasStore_);
  const int rc = h.bind(1, sid).step();
  *exists = rc == SQLITE_ROW;
  return rc == SQLITE_ROW || rc == SQLITE_DONE || fail("finding a store");
}

bool Database::listIds(uint32_t sid, uint32_t afterId, size_t max, std::vector<uint32_t>* out) {
  out->clear();
  Use l(listIds_);
  l.bind(1, sid).bind(2, after(afterId)).bind(3, int64_t(max));
  int rc;
  while ((rc = l.step()) == SQLITE_ROW) out->push_back(uint32_t(l.integer(0)));
  return rc == SQLITE_DONE || fail("listing ids");
}

bool Database::readFrom(uint32_t sid, uint32_t first, const EntrySink& take) {
  Use r(readFrom_);
  r.bind(1, sid).bind(2, int64_t(first));
  int rc;
  while ((rc = r.step()) == SQLITE_ROW)
    if (!take(uint32_t(r.integer(0)), r.blob(1))) return true;
  return rc == SQLITE_DONE || fail("reading objects");
}

bool Database::put(uint32_t sid, uint32_t id, std::span<const unsigned char> data) {
  if (!exec("BEGIN IMMEDIATE")) return false;
  bool ok;
  {
    Use u(upsert_);
    ok = u.bind(1, sid).bind(2, id).bind(3, data).step() == SQLITE_DONE || fail("writing an object");
  }
  if (ok) {
    Use m(markWritten_);
    ok = m.bind(1, sid).step() == SQLITE_DONE || fail("marking a store written");
  }
  return commitOrRollback(ok);
}

bool Database::erase(uint32_t sid, uint32_t id) {
  Use e(erase_);
  return e.bind(1, sid).bind(2, id).step() == SQLITE_DONE || fail("deleting an object");
}

bool Database::resetNow() {
  return exec("BEGIN IMMEDIATE") &&
         commitOrRollback(exec("DELETE FROM objects; UPDATE stores SET written = 0; "
                               "DELETE FROM settings WHERE key = 'reset_pending'"));
}

bool Database::scheduleReset() {
  Use s(setSetting_);
  return s.bind(1, std::string_view("reset_pending")).bind(2, 1).step() == SQLITE_DONE ||
         fail("scheduling a reset");
}

// ---- Backup ----------------------------------------------------------------------------------

namespace {

// The copy's own finishing touches, on its own connection.
bool finishCopy(sqlite3* copy, std::string_view label) {
  Statement s;
  if (sqlite3_exec(copy, "PRAGMA journal_mode = DELETE; DELETE FROM settings WHERE key = 'reset_pending'",
                   nullptr, nullptr, nullptr) != SQLITE_OK ||
      !s.prepare(copy, "INSERT OR REPLACE INTO settings(key, value) VALUES ('label', ?1), ('created', ?2)"))
    return false;
  Use u(s);
  return u.bind(1, label).bind(2, int64_t(std::time(nullptr))).step() == SQLITE_DONE;
}

}  // namespace

// Whether `path` is the live database or its log: renaming a copy over
// either would cut the running service off from its own file.
bool Database::isOwnFile(const std::string& path) const {
  struct stat target {}, own {};
  if (stat(path.c_str(), &target) != 0) return false;
  const std::string db = sqlite3_db_filename(db_.get(), "main");
  for (const std::string& f : {db, db + "-wal", db + "-journal"})
    if (stat(f.c_str(), &own) == 0 && own.st_dev == target.st_dev && own.st_ino == target.st_ino) return true;
  return false;
}

Database::BackupResult Database::backup(const std::string& path, bool overwrite, std::string_view label) {
  struct stat st {};
  if (!overwrite && lstat(path.c_str(), &st) == 0) return BackupResult::kExists;
  if (isOwnFile(path)) {
    error_ = "will not back up over the database itself: " + path;
    return BackupResult::kFailed;
  }
  const std::string part = path + ".part";
  if (unlink(part.c_str()) != 0 && errno != ENOENT) {
    error_ = "cannot remove " + part + ": " + std::strerror(errno);
    return BackupResult::kFailed;
  }
  bool ok = false;
  {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(part.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<sqlite3, Closer> copy(raw);
    sqlite3_backup* b = copy ? sqlite3_backup_init(copy.get(), "main", db_.get(), "main") : nullptr;
    // All pages in one step: the service answers nobody meanwhile, and the
    // copy is one consistent snapshot.
    ok = b && sqlite3_backup_step(b, -1) == SQLITE_DONE;
    ok = sqlite3_backup_finish(b) == SQLITE_OK && ok && finishCopy(copy.get(), label);
    error_ = std::string("backup to ") + part + ": " + (copy ? sqlite3_errmsg(copy.get()) : "out of memory");
  }
  // The copy reaches the disk before its name does; then the name.
  ok = ok && syncPath(part, O_RDONLY);
  const unsigned int flags = overwrite ? 0 : RENAME_NOREPLACE;
  if (ok && renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, path.c_str(), flags) != 0) {
    const int err = errno;
    unlink(part.c_str());
    if (err == EEXIST) return BackupResult::kExists;
    error_ = "cannot rename " + part + " to " + path + ": " + std::strerror(err);
    return BackupResult::kFailed;
  }
  if (!ok) {
    unlink(part.c_str());
    return BackupResult::kFailed;
  }
  syncPath(dirOf(path), O_RDONLY | O_DIRECTORY);
  return BackupResult::kOk;
}

}  // namespace kr::storesvc
