// SPDX-License-Identifier: Apache-2.0
#include "service/sqlite.h"

#include <sqlite3.h>

#include <new>
#include <utility>

namespace SecurityPrivacyTools {
namespace {

// Filters make statements of many shapes; a client that tries them all must not fill the memory.
constexpr size_t MAX_KEPT_STATEMENTS = 48;
// Longer ones have lists of numbers in them, and are hardly asked for twice.
constexpr size_t MAX_KEPT_BYTES = 1024;

// Undoes a transaction that is still open. SQLite itself ends one that it cannot complete, such as on a full disk.
struct RollBack {
    void operator()(sqlite3* connection) const
    {
        if (sqlite3_get_autocommit(connection) == 0) {
            sqlite3_exec(connection, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
};

}  // namespace

void CloseHandle::operator()(sqlite3* connection) const
{
    sqlite3_close(connection);
}

void CloseHandle::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

Connection::Connection(const std::string& path)
{
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &handle,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    handle_.reset(handle);
    if (code != SQLITE_OK) {
        throw DatabaseError(sqlite3_errstr(code));
    }
}

void Connection::Execute(const std::string& script)
{
    Check(sqlite3_exec(handle_.get(), script.c_str(), nullptr, nullptr, nullptr));
}

int64_t Connection::Number(const std::string& sql)
{
    Statement statement(*this, sql);
    return statement.Step() ? statement.Integer(0) : 0;
}

int32_t Connection::Transact(const char* begin, const std::function<int32_t(Connection&)>& work)
{
    Execute(begin);
    const std::unique_ptr<sqlite3, RollBack> transaction(handle_.get());
    const int32_t result = work(*this);
    if (result == 0) {
        Execute("COMMIT");
    }
    return result;
}

int64_t Connection::Changes() const
{
    return sqlite3_changes64(handle_.get());
}

void Connection::Check(int code) const
{
    if (code != SQLITE_OK && code != SQLITE_DONE && code != SQLITE_ROW) {
        throw DatabaseError(sqlite3_errmsg(handle_.get()));
    }
}

std::unique_ptr<sqlite3_stmt, CloseHandle> Statement::Take()
{
    if (auto kept = connection_.idle_.extract(sql_)) {
        return std::move(kept.mapped());
    }
    sqlite3_stmt* handle = nullptr;
    connection_.Check(
        sqlite3_prepare_v2(connection_.handle_.get(), sql_.data(), static_cast<int>(sql_.size()), &handle, nullptr));
    return std::unique_ptr<sqlite3_stmt, CloseHandle>(handle);
}

Statement::~Statement()
{
    sqlite3_reset(handle_.get());
    sqlite3_clear_bindings(handle_.get());
    auto& idle = connection_.idle_;
    if (sql_.size() > MAX_KEPT_BYTES) {
        return;
    }
    if (idle.size() >= MAX_KEPT_STATEMENTS) {
        idle.erase(idle.begin());
    }
    try {
        idle.try_emplace(sql_, std::move(handle_));
    } catch (const std::bad_alloc&) {
        // Then it is prepared again next time.
    }
}

void Statement::Bind(int64_t value)
{
    connection_.Check(sqlite3_bind_int64(handle_.get(), ++bound_, value));
}

void Statement::Bind(std::string_view value)
{
    // An empty view may have no address, which would bind a null.
    connection_.Check(sqlite3_bind_text64(handle_.get(), ++bound_, value.empty() ? "" : value.data(), value.size(),
                                          SQLITE_STATIC, SQLITE_UTF8));
}

bool Statement::Step()
{
    const int code = sqlite3_step(handle_.get());
    connection_.Check(code);
    return code == SQLITE_ROW;
}

int64_t Statement::Integer(int column) const
{
    return sqlite3_column_int64(handle_.get(), column);
}

std::string_view Statement::Text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle_.get(), column));
    return text != nullptr ? std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column)))
                           : std::string_view();
}

}  // namespace SecurityPrivacyTools
