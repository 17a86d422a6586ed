// SPDX-License-Identifier: Apache-2.0
// SQLite, as far as the service needs it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace VEXA::UpdateEngine {

class Database;

// One statement. Numbers, enumerators and texts are given to it, and read from a row, in their order.
class Statement {
public:
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    template <typename... Values>
    void Bind(const Values&... values)
    {
        (BindNext(values), ...);
    }
    // True when there is a row to read.
    bool Step();
    template <typename... Values>
    void Read(Values&... values)
    {
        (ReadNext(values), ...);
    }
    // Runs to the end; false, with a line in the log, when that fails.
    bool Run();

private:
    friend class Database;
    Statement(Database& database, sqlite3_stmt* statement) : database_(database), statement_(statement) {}
    void BindNext(const std::string& value);
    template <typename Number>
    void BindNext(Number value)
    {
        BindNumber(static_cast<int64_t>(value));
    }
    void BindNumber(int64_t value);
    int64_t NextNumber();
    void ReadNext(std::string& value);
    template <typename Number>
    void ReadNext(Number& value)
    {
        value = static_cast<Number>(NextNumber());
    }

    Database& database_;
    sqlite3_stmt* const statement_;  // the database's
    int bound_ = 0;
    int next_ = 0;
    int result_ = 0;
};

// Belongs to one thread at a time. What a statement has written is there after the process's death, however it ended.
// Between Begin and Commit it is written together, or not at all.
class Database {
public:
    // Null, with the reason in `error`, when the file can't be opened as a database or another process has it open.
    // `isDamaged` is set when what the file holds is the reason.
    static std::unique_ptr<Database> Open(const std::string& path, std::string& error, bool& isDamaged);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Several statements without values or rows.
    bool Execute(const char* sql);
    // One at a time for each text, which must outlive the database.
    Statement Prepare(const char* sql);

    void Begin();
    // False when not all of it could be written: then nothing is.
    bool Commit();
    void Rollback();

    // Why the last statement failed, and whether that was what the file holds.
    std::string LastError() const;
    bool IsDamaged() const { return isDamaged_; }

private:
    friend class Statement;
    explicit Database(sqlite3* handle) : handle_(handle) {}
    // Notes, and logs, that a statement has failed.
    bool Fail();

    sqlite3* const handle_;
    std::map<const char*, sqlite3_stmt*> statements_;
    bool isInTransaction_ = false;
    // A statement of the transaction has failed. SQLite may have ended it then, so that what follows would be written
    // alone: it is not tried.
    bool isBroken_ = false;
    bool isDamaged_ = false;
};

}  // namespace VEXA::UpdateEngine
