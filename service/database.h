// SPDX-License-Identifier: Apache-2.0
// SQLite, as far as the service needs it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace VEXA::UpdateEngine {

class Database;

// One statement. Values are numbered from 1, columns from 0.
class Statement {
public:
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    Statement& operator=(Statement&&) = delete;

    Statement& Bind(int64_t value);
    Statement& Bind(const std::string& value);
    // True when there is a row to read.
    bool Step();
    // Runs to the end; false, with a line in the log, when that fails.
    bool Run();

    int64_t Int() { return Int(next_++); }
    std::string Text() { return Text(next_++); }

private:
    friend class Database;
    Statement(Database& database, const char* sql);
    int64_t Int(int column);
    std::string Text(int column);

    Database* database_;
    sqlite3_stmt* statement_ = nullptr;
    int bound_ = 0;
    int next_ = 0;
    int result_ = 0;
};

// Belongs to one thread at a time. What a statement has written is there after the process's death, however it ended.
// Between Begin and Commit it is written together, or not at all.
class Database {
public:
    // Null, with the reason in `error`, when the file can't be opened as a database or another process has it open.
    static std::unique_ptr<Database> Open(const std::string& path, std::string& error);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Several statements without values or rows.
    bool Execute(const char* sql);
    Statement Prepare(const char* sql) { return {*this, sql}; }

    void Begin();
    // False when not all of it could be written: then nothing is.
    bool Commit();
    void Rollback();

private:
    friend class Statement;
    explicit Database(sqlite3* handle) : handle_(handle) {}
    // Notes, and logs, that a statement has failed.
    bool Fail();

    sqlite3* const handle_;
    bool isInTransaction_ = false;
    // A statement of the transaction has failed. SQLite may have ended it then, so that what follows would be written
    // alone: it is not tried.
    bool isBroken_ = false;
};

}  // namespace VEXA::UpdateEngine
