// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace SecurityPrivacyTools {

class Connection;

// The database cannot do what it is asked to. The text holds no value of a row.
class DatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct CloseHandle {
    void operator()(sqlite3* connection) const;
    void operator()(sqlite3_stmt* statement) const;
};

// One use of a prepared statement. The connection keeps it for the next use. Every member throws DatabaseError.
class Statement {
public:
    // A text among the values has to stay as it is while the statement is used.
    template <class... Values>
    Statement(Connection& connection, const std::string& sql, const Values&... values)
        : connection_(connection), sql_(sql), handle_(Take())
    {
        (Bind(values), ...);
    }
    ~Statement();

    // The next value, from the left.
    void Bind(int64_t value);
    void Bind(std::string_view value);

    // Goes to the next row; false when there is none.
    bool Step();

    // Columns of the row, from 0. A text is valid until the next step.
    int64_t Integer(int column) const;
    int32_t Int32(int column) const { return static_cast<int32_t>(Integer(column)); }
    std::string_view Text(int column) const;

private:
    std::unique_ptr<sqlite3_stmt, CloseHandle> Take();

    Connection& connection_;
    const std::string sql_;
    std::unique_ptr<sqlite3_stmt, CloseHandle> handle_;
    int bound_ = 0;
};

// One connection to a SQLite database with the statements that it has prepared. For one thread at a time. Every member
// throws DatabaseError.
class Connection {
public:
    // Opens the file, or a database in memory for ":memory:", and makes it if there is none.
    explicit Connection(const std::string& path);

    // Runs statements without values.
    void Execute(const std::string& script);

    // Runs a statement to its end. Answers how many rows it changed; what a foreign key took along does not count.
    template <class... Values>
    int64_t Run(const std::string& sql, const Values&... values)
    {
        Statement statement(*this, sql, values...);
        while (statement.Step()) {
        }
        return Changes();
    }

    // The number that a pragma or a count answers.
    int64_t Number(const std::string& sql);

    // Runs `work` between `begin` ("BEGIN", or "BEGIN IMMEDIATE" to write) and the end of the transaction, and hands on
    // what it answers or throws. With 0, what was written is on the disk when this returns; otherwise nothing is
    // written. To write, it waits for another process that does for as long as the connection allows.
    int32_t Transact(const char* begin, const std::function<int32_t(Connection&)>& work);

private:
    friend class Statement;

    int64_t Changes() const;
    void Check(int code) const;

    std::unique_ptr<sqlite3, CloseHandle> handle_;
    std::map<std::string, std::unique_ptr<sqlite3_stmt, CloseHandle>> idle_;
};

}  // namespace SecurityPrivacyTools
