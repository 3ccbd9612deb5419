#pragma once
// peers.h: the same by SQLite and by LMDB, each change a transaction of its own that is not synced.
//
// Reopening is one opening, one look at an entry and one closing.  SQLite's other connection stays, so that its log is
// not worked off each time; LMDB allows a process only one, which is closed and opened again.

#include <lmdb.h>
#include <sqlite3.h>

#include "bench/store/files.h"

namespace bench {

class Sqlite {
 public:
  Sqlite(const Folder& folder, unsigned int count, const std::vector<unsigned char>& value)
      : name_(folder.file("sqlite")), value_(value) {
    check(sqlite3_open(name_.c_str(), &db_) == SQLITE_OK);
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=OFF");
    run("CREATE TABLE entries (id INTEGER PRIMARY KEY, value BLOB)");
    set_ = prepare("INSERT OR REPLACE INTO entries VALUES (?, ?)");
    get_ = prepare(kGet);
    remove_ = prepare("DELETE FROM entries WHERE id = ?");
    run("BEGIN");
    for (unsigned int id = 0; id < count; ++id) set(id);
    run("COMMIT");
  }
  ~Sqlite() {
    for (sqlite3_stmt* statement : {set_, get_, remove_}) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  void set(unsigned int id) {
    sqlite3_bind_blob(set_, 2, value_.data(), static_cast<int>(value_.size()), SQLITE_STATIC);
    step(set_, id, SQLITE_DONE);
  }
  void setAll(const std::vector<unsigned int>& ids) {
    run("BEGIN");
    for (const unsigned int id : ids) set(id);
    run("COMMIT");
  }
  void get(unsigned int id) { step(get_, id, SQLITE_ROW); }
  void remove(unsigned int id) { step(remove_, id, SQLITE_DONE); }
  void reopen() {
    sqlite3* again = nullptr;
    sqlite3_stmt* look = nullptr;
    check(sqlite3_open(name_.c_str(), &again) == SQLITE_OK);
    check(sqlite3_prepare_v2(again, kGet, -1, &look, nullptr) == SQLITE_OK);
    step(look, 0, SQLITE_ROW);
    sqlite3_finalize(look);
    sqlite3_close(again);
  }

 private:
  static constexpr const char* kGet = "SELECT value FROM entries WHERE id = ?";

  void check(bool works) const {
    if (works) return;
    (void)std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(db_));
    std::exit(1);
  }
  void run(const char* words) { check(sqlite3_exec(db_, words, nullptr, nullptr, nullptr) == SQLITE_OK); }
  sqlite3_stmt* prepare(const char* words) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(db_, words, -1, &statement, nullptr) == SQLITE_OK);
    return statement;
  }
  void step(sqlite3_stmt* statement, unsigned int id, int expected) {
    sqlite3_bind_int64(statement, 1, id);
    check(sqlite3_step(statement) == expected);
    sqlite3_reset(statement);
  }

  std::string name_;
  std::vector<unsigned char> value_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* set_ = nullptr;
  sqlite3_stmt* get_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
};

class Lmdb {
 public:
  Lmdb(const Folder& folder, unsigned int count, const std::vector<unsigned char>& value)
      : name_(folder.file("lmdb")), value_(value) {
    open();
    MDB_txn* all = begin(0);
    for (unsigned int id = 0; id < count; ++id) put(all, id);
    check(mdb_txn_commit(all));
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  static std::string version() {
    int numbers[3];
    mdb_version(&numbers[0], &numbers[1], &numbers[2]);
    return std::to_string(numbers[0]) + "." + std::to_string(numbers[1]) + "." + std::to_string(numbers[2]);
  }

  void set(unsigned int id) {
    MDB_txn* change = begin(0);
    put(change, id);
    check(mdb_txn_commit(change));
  }
  void setAll(const std::vector<unsigned int>& ids) {
    MDB_txn* change = begin(0);
    for (const unsigned int id : ids) put(change, id);
    check(mdb_txn_commit(change));
  }
  void get(unsigned int id) {
    MDB_txn* look = begin(MDB_RDONLY);
    MDB_val key{sizeof id, &id};
    MDB_val found{};
    check(mdb_get(look, table_, &key, &found));
    mdb_txn_abort(look);
  }
  void remove(unsigned int id) {
    MDB_txn* change = begin(0);
    MDB_val key{sizeof id, &id};
    check(mdb_del(change, table_, &key, nullptr));
    check(mdb_txn_commit(change));
  }
  void reopen() {
    mdb_env_close(env_);
    open();
    get(0);
  }

 private:
  void open() {
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, std::size_t{1} << 30));
    check(mdb_env_open(env_, name_.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600));
    MDB_txn* first = begin(0);
    check(mdb_dbi_open(first, nullptr, MDB_INTEGERKEY | MDB_CREATE, &table_));
    check(mdb_txn_commit(first));
  }
  static void check(int error) {
    if (error == 0) return;
    (void)std::fprintf(stderr, "lmdb: %s\n", mdb_strerror(error));
    std::exit(1);
  }
  MDB_txn* begin(unsigned int flags) {
    MDB_txn* transaction = nullptr;
    check(mdb_txn_begin(env_, nullptr, flags, &transaction));
    return transaction;
  }
  void put(MDB_txn* transaction, unsigned int id) {
    MDB_val key{sizeof id, &id};
    MDB_val value{value_.size(), value_.data()};
    check(mdb_put(transaction, table_, &key, &value, 0));
  }

  std::string name_;
  std::vector<unsigned char> value_;
  MDB_env* env_ = nullptr;
  MDB_dbi table_ = 0;
};

}  // namespace bench
