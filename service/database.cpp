// SPDX-License-Identifier: Apache-2.0
#include "database.h"

#include <sqlite3.h>

#include "service_limits.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

int64_t Row::NextNumber()
{
    return sqlite3_column_int64(statement_, next_++);
}

void Row::ReadNext(std::string& value)
{
    const auto* const text = static_cast<const char*>(sqlite3_column_blob(statement_, next_));
    const int bytes = sqlite3_column_bytes(statement_, next_++);
    value = text != nullptr ? std::string(text, static_cast<size_t>(bytes)) : std::string();
}

std::unique_ptr<Database> Database::Open(const std::string& path, std::string& error, bool& isDamaged)
{
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW;
    const int result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    std::unique_ptr<Database> database(new Database(handle));
    sqlite3_busy_timeout(handle, static_cast<int>(kLockWait.count()));
    // The lock is exclusive, because a second service on the same state must not start. It dies with its process.
    if (result != SQLITE_OK ||
        !database->Execute("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                           "BEGIN EXCLUSIVE; COMMIT;")) {
        error = database->LastError();
        isDamaged = database->isDamaged_;
        return nullptr;
    }
    return database;
}

Database::~Database()
{
    for (const auto& [sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(handle_);
}

sqlite3_stmt* Database::Prepare(const char* sql)
{
    sqlite3_stmt*& statement = statements_[sql];
    if (statement == nullptr && sqlite3_prepare_v2(handle_, sql, -1, &statement, nullptr) != SQLITE_OK) {
        Fail();
    }
    return statement;
}

void Database::BindNumber(sqlite3_stmt* statement, int at, int64_t value)
{
    sqlite3_bind_int64(statement, at, value);
}

// Texts are stored as bytes, because names of files need not be UTF-8.
void Database::Bind(sqlite3_stmt* statement, int at, const std::string& value)
{
    sqlite3_bind_blob64(statement, at, value.data(), value.size(), SQLITE_TRANSIENT);
}

bool Database::Run(sqlite3_stmt* statement, const std::function<void(Row&)>& read)
{
    if (statement == nullptr || isBroken_) {
        return false;
    }
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW) {
        Row row(statement);
        read(row);
    }
    const bool done = result == SQLITE_DONE || Fail();
    sqlite3_reset(statement);
    return done;
}

std::string Database::LastError() const
{
    return handle_ != nullptr ? sqlite3_errmsg(handle_) : "out of memory";
}

bool Database::Execute(const char* sql)
{
    return !isBroken_ && (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || Fail());
}

void Database::Rollback()
{
    isBroken_ = false;
    if (sqlite3_get_autocommit(handle_) == 0) {
        Execute("ROLLBACK");
    }
}

bool Database::Fail()
{
    const int result = sqlite3_errcode(handle_);
    // SQLITE_ERROR says that the file lacks a table or a column.
    isDamaged_ = result == SQLITE_CORRUPT || result == SQLITE_NOTADB || result == SQLITE_ERROR;
    SA_LOGE("state: %{public}s", LastError().c_str());
    isBroken_ = true;
    return false;
}

}  // namespace VEXA::UpdateEngine
