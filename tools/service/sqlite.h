// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace SecurityPrivacyTools {

// The database cannot do what it is asked to. The text holds no value of a row.
class DatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What is to be written breaks a rule of the schema.
class ConstraintError : public DatabaseError {
public:
    using DatabaseError::DatabaseError;
};

// One connection to a SQLite database with the statements that it has prepared. For one thread at a time.
class Connection {
public:
    // Opens the file, or a database in memory for ":memory:", and makes it if there is none. Throws DatabaseError.
    explicit Connection(const std::string& path);
    ~Connection();

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Runs statements without values. Throws DatabaseError.
    void Execute(const char* script);
    // The number that a pragma or a count answers. Throws DatabaseError.
    int64_t Number(const std::string& sql);

    // Rows that the last statement changed; what a foreign key took along does not count.
    int64_t Changes() const;

private:
    friend class Statement;

    void Check(int code) const;

    sqlite3* handle_ = nullptr;
    std::map<std::string, sqlite3_stmt*> idle_;
};

// One use of a prepared statement. The connection keeps it for the next use. Every member throws DatabaseError.
class Statement {
public:
    template <class... Values>
    Statement(Connection& connection, const std::string& sql, const Values&... values)
        : connection_(connection), sql_(sql), handle_(Take())
    {
        (Bind(values), ...);
    }
    ~Statement();

    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // The next value, from the left. A text has to stay as it is while the statement is used.
    void Bind(int64_t value);
    void Bind(std::string_view value);
    void Bind(const std::string& value) { Bind(std::string_view(value)); }

    // Goes to the next row; false when there is none.
    bool Step();
    // Runs it to its end, and makes it ready for other values.
    void Run();

    // Columns of the row, from 0. A text is valid until the next step.
    int64_t Integer(int column) const;
    int32_t Int32(int column) const { return static_cast<int32_t>(Integer(column)); }
    std::string_view Text(int column) const;

private:
    sqlite3_stmt* Take();

    Connection& connection_;
    const std::string sql_;
    sqlite3_stmt* const handle_;
    int bound_ = 0;
};

// Undone at the end of the block unless it was committed.
class Transaction {
public:
    enum class Kind { READ, WRITE };

    // A write waits for one of another process for as long as the connection allows. Throws DatabaseError.
    Transaction(Connection& connection, Kind kind);
    ~Transaction();

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // When it returns, what was written is on the disk. Throws DatabaseError; nothing is written then.
    void Commit();

private:
    Connection* connection_;  // null once it is over
};

}  // namespace SecurityPrivacyTools
