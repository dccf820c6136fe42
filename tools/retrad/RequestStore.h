#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"

struct sqlite3;
struct sqlite3_stmt;

namespace Retrad {

// The service's requests on disk: one SQLite database, a row per (uid, method, URI) holding the
// request in its attribute-log form. Writes are grouped: `begin()`, any number of `put` and
// `remove`, `commit()`; a request is acknowledged only after the commit that holds it returned.
// The database runs in WAL mode, so a commit survives the service being killed at any moment.
//
//   RequestStore store("/var/lib/retra/requests.db");
//   for (auto& [uid, request] : store.all()) ...;
//   store.begin();
//   store.put(1000, request);
//   store.commit();
//
// Failures raise std::runtime_error with SQLite's message; after a failed commit the
// transaction is rolled back and nothing of it is stored.
class RequestStore {
 public:
  struct Stored {
    uint32_t uid;
    Retra::Request request;
  };

  // Opens or creates the database (and its directory, 0700) at `path`.
  explicit RequestStore(const std::string& path);
  ~RequestStore();
  RequestStore(const RequestStore&) = delete;
  RequestStore& operator=(const RequestStore&) = delete;

  // Every stored request, in no particular order. A row that no longer reads as a request is
  // skipped and counted in `unreadable`.
  [[nodiscard]] std::vector<Stored> all(size_t* unreadable = nullptr) const;

  void begin();
  void put(uint32_t uid, const Retra::Request& request);
  void remove(uint32_t uid, const Retra::RequestKey& key);
  void commit();
  void rollback() noexcept;
  [[nodiscard]] bool inTransaction() const noexcept { return inTransaction_; }

 private:
  void execute(const char* sql);
  [[noreturn]] void fail(const std::string& what) const;

  sqlite3* db_ = nullptr;
  sqlite3_stmt* put_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  bool inTransaction_ = false;
};

}  // namespace Retrad
