// SPDX-License-Identifier: Apache-2.0
// SQLite, as far as the service needs it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace VEXA::UpdateEngine {

// The values of a row, read in their order.
class Row {
public:
    explicit Row(sqlite3_stmt* statement) : statement_(statement) {}
    template <typename... Values>
    void Read(Values&... values)
    {
        (ReadNext(values), ...);
    }

private:
    int64_t NextNumber();
    void ReadNext(std::string& value);
    template <typename Number>
    void ReadNext(Number& value)
    {
        value = static_cast<Number>(NextNumber());
    }

    sqlite3_stmt* const statement_;
    int next_ = 0;
};

// Belongs to one thread at a time. What has been written is there after the process's death, however it ended. Between
// Begin and Commit it is written together, or not at all. A failure leaves a line in the log.
class Database {
public:
    // Null, with the reason in `error`, when the file can't be opened as a database or another process has it open.
    // `isDamaged` is set when what the file holds is the reason.
    static std::unique_ptr<Database> Open(const std::string& path, std::string& error, bool& isDamaged);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs several statements without values or rows.
    bool Execute(const char* sql);
    // One statement with numbers, enumerators and texts for its question marks. Its text must outlive the database.
    template <typename... Values>
    bool Write(const char* sql, const Values&... values)
    {
        sqlite3_stmt* const statement = Prepare(sql);
        int at = 0;
        (Bind(statement, ++at, values), ...);
        return Run(statement, nullptr);
    }
    // Reads all rows of a query; false when one can't be read. Its text must outlive the database.
    bool ForEachRow(const char* sql, const std::function<void(Row&)>& read) { return Run(Prepare(sql), read); }

    // Rollback comes last, also when all could be written.
    void Begin() { Execute("BEGIN IMMEDIATE"); }
    // False when not all of it could be written: then Rollback comes next.
    bool Commit() { return Execute("COMMIT"); }
    void Rollback();

    // Why the last statement failed, and whether that was what the file holds.
    std::string LastError() const;
    bool IsDamaged() const { return isDamaged_; }

private:
    explicit Database(sqlite3* handle) : handle_(handle) {}
    sqlite3_stmt* Prepare(const char* sql);
    static void Bind(sqlite3_stmt* statement, int at, const std::string& value);
    static void BindNumber(sqlite3_stmt* statement, int at, int64_t value);
    template <typename Number>
    static void Bind(sqlite3_stmt* statement, int at, Number value)
    {
        BindNumber(statement, at, static_cast<int64_t>(value));
    }
    bool Run(sqlite3_stmt* statement, const std::function<void(Row&)>& read);
    // Notes, and logs, that a statement has failed.
    bool Fail();

    sqlite3* const handle_;
    std::map<const char*, sqlite3_stmt*> statements_;
    // A statement has failed. SQLite may have ended the transaction then, so that what follows would be written alone:
    // it is not tried.
    bool isBroken_ = false;
    bool isDamaged_ = false;
};

}  // namespace VEXA::UpdateEngine
