// SPDX-License-Identifier: Apache-2.0
#include "service/sqlite.h"

#include <sqlite3.h>

namespace SecurityPrivacyTools {
namespace {

// Filters make statements of many shapes; a client that tries them all must not fill the memory.
constexpr size_t MAX_KEPT_STATEMENTS = 48;

}  // namespace

Connection::Connection(const std::string& path)
{
    const int code = sqlite3_open_v2(path.c_str(), &handle_,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (code != SQLITE_OK) {
        const DatabaseError error(sqlite3_errstr(code));
        sqlite3_close(handle_);
        throw error;
    }
}

Connection::~Connection()
{
    for (const auto& [sql, statement] : idle_) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(handle_);
}

void Connection::Execute(const char* script)
{
    Check(sqlite3_exec(handle_, script, nullptr, nullptr, nullptr));
}

int64_t Connection::Number(const std::string& sql)
{
    Statement statement(*this, sql);
    return statement.Step() ? statement.Integer(0) : 0;
}

int64_t Connection::Changes() const
{
    return sqlite3_changes64(handle_);
}

void Connection::Check(int code) const
{
    if (code == SQLITE_OK || code == SQLITE_DONE) {
        return;
    }
    if ((code & 0xff) == SQLITE_CONSTRAINT) {
        throw ConstraintError(sqlite3_errmsg(handle_));
    }
    throw DatabaseError(sqlite3_errmsg(handle_));
}

sqlite3_stmt* Statement::Take()
{
    if (auto kept = connection_.idle_.extract(sql_)) {
        return kept.mapped();
    }
    sqlite3_stmt* handle = nullptr;
    connection_.Check(
        sqlite3_prepare_v2(connection_.handle_, sql_.data(), static_cast<int>(sql_.size()), &handle, nullptr));
    return handle;
}

Statement::~Statement()
{
    sqlite3_reset(handle_);
    sqlite3_clear_bindings(handle_);
    auto& idle = connection_.idle_;
    if (idle.size() >= MAX_KEPT_STATEMENTS) {
        sqlite3_finalize(idle.begin()->second);
        idle.erase(idle.begin());
    }
    if (!idle.emplace(sql_, handle_).second) {
        sqlite3_finalize(handle_);
    }
}

void Statement::Bind(int64_t value)
{
    connection_.Check(sqlite3_bind_int64(handle_, ++bound_, value));
}

void Statement::Bind(std::string_view value)
{
    // An empty view may have no address, which would bind a null.
    connection_.Check(sqlite3_bind_text64(handle_, ++bound_, value.empty() ? "" : value.data(), value.size(),
                                          SQLITE_STATIC, SQLITE_UTF8));
}

bool Statement::Step()
{
    const int code = sqlite3_step(handle_);
    if (code != SQLITE_ROW) {
        connection_.Check(code);
    }
    return code == SQLITE_ROW;
}

void Statement::Run()
{
    while (Step()) {
    }
    sqlite3_reset(handle_);
    bound_ = 0;
}

int64_t Statement::Integer(int column) const
{
    return sqlite3_column_int64(handle_, column);
}

std::string_view Statement::Text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle_, column));
    return text != nullptr ? std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(handle_, column)))
                           : std::string_view();
}

Transaction::Transaction(Connection& connection, Kind kind) : connection_(&connection)
{
    connection.Execute(kind == Kind::WRITE ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction()
{
    if (connection_ != nullptr) {
        try {
            connection_->Execute("ROLLBACK");
        } catch (const DatabaseError&) {
            // SQLite has undone it by itself, as it does when the disk is full.
            return;
        }
    }
}

void Transaction::Commit()
{
    connection_->Execute("COMMIT");
    connection_ = nullptr;
}

}  // namespace SecurityPrivacyTools
