#include "retrad/RequestStore.h"

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>

#include "Orb/AttrLog.h"
#include "Orb/Exception.h"

namespace Retrad {
namespace {

void bindKey(sqlite3_stmt* statement, uint32_t uid, const Retra::RequestKey& key) {
  sqlite3_bind_int64(statement, 1, uid);
  sqlite3_bind_int(statement, 2, int(key.method()));
  sqlite3_bind_text(statement, 3, key.uri().charPtr(), int(key.uri().size()), SQLITE_TRANSIENT);
}

}  // namespace

RequestStore::RequestStore(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty() && !std::filesystem::exists(parent)) {
    std::filesystem::create_directories(parent);
    std::filesystem::permissions(parent, std::filesystem::perms::owner_all);
  }
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw std::runtime_error("cannot open request store " + path + ": " + message);
  }
  sqlite3_busy_timeout(db_, 5000);
  // WAL keeps every commit once the call returns, whatever happens to the process after.
  execute("PRAGMA journal_mode=WAL");
  execute("PRAGMA synchronous=NORMAL");
  execute(
      "CREATE TABLE IF NOT EXISTS request (uid INTEGER NOT NULL, method INTEGER NOT NULL, "
      "uri TEXT NOT NULL, value BLOB NOT NULL, PRIMARY KEY (uid, method, uri))");
  if (sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO request VALUES (?1, ?2, ?3, ?4)", -1, &put_,
                         nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db_, "DELETE FROM request WHERE uid = ?1 AND method = ?2 AND uri = ?3", -1,
                         &remove_, nullptr) != SQLITE_OK) {
    fail("prepare");
  }
}

RequestStore::~RequestStore() {
  rollback();
  sqlite3_finalize(put_);
  sqlite3_finalize(remove_);
  sqlite3_close(db_);
}

std::vector<RequestStore::Stored> RequestStore::all(size_t* unreadable) const {
  std::vector<Stored> stored;
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(db_, "SELECT uid, value FROM request", -1, &query, nullptr) != SQLITE_OK) {
    fail("read");
  }
  size_t bad = 0;
  int step;
  while ((step = sqlite3_step(query)) == SQLITE_ROW) {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(query, 1));
    const int size = sqlite3_column_bytes(query, 1);
    try {
      Orb::AttrLogIn in(data, size_t(size));
      Retra::Request request(in);
      in.expectEnd();
      stored.push_back({uint32_t(sqlite3_column_int64(query, 0)), std::move(request)});
    } catch (const Orb::Exception&) {
      ++bad;
    }
  }
  sqlite3_finalize(query);
  if (step != SQLITE_DONE) fail("read");
  if (unreadable) *unreadable = bad;
  return stored;
}

void RequestStore::begin() {
  if (inTransaction_) return;
  execute("BEGIN IMMEDIATE");
  inTransaction_ = true;
}

void RequestStore::put(uint32_t uid, const Retra::Request& request) {
  Orb::AttrLogOut out;
  writeAttr(out, request);
  const std::string& bytes = out.bytes();
  sqlite3_reset(put_);
  bindKey(put_, uid, request.requestKey());
  sqlite3_bind_blob(put_, 4, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(put_) != SQLITE_DONE) fail("store");
}

void RequestStore::remove(uint32_t uid, const Retra::RequestKey& key) {
  sqlite3_reset(remove_);
  bindKey(remove_, uid, key);
  if (sqlite3_step(remove_) != SQLITE_DONE) fail("remove");
}

void RequestStore::commit() {
  if (!inTransaction_) return;
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    const std::string message = sqlite3_errmsg(db_);
    rollback();
    throw std::runtime_error("request store: commit: " + message);
  }
  inTransaction_ = false;
}

void RequestStore::rollback() noexcept {
  if (!inTransaction_) return;
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  inTransaction_ = false;
}

void RequestStore::execute(const char* sql) {
  if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(sql);
}

void RequestStore::fail(const std::string& what) const {
  throw std::runtime_error("request store: " + what + ": " + sqlite3_errmsg(db_));
}

}  // namespace Retrad
