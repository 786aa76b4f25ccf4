// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/VariadicBind.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/result_codes.h"

namespace SecurityPrivacyTools {

// Bounds of what is stored, in bytes. Without them one stored text, asked for again and again, makes an answer as long
// as memory.
constexpr size_t MAX_NAME_BYTES = 255;  // bundles, groups, states, policies
constexpr size_t MAX_FINGERPRINT_BYTES = 1024;
constexpr size_t MAX_REASON_BYTES = 1024;
// The same for all texts of one answer: each worker may be making one, and the server has one total for all.
constexpr size_t MAX_ANSWER_BYTES = size_t{4} * 1024 * 1024;

// The database cannot do what it is asked to. The text holds no value of a row.
using DatabaseError = SQLite::Exception;

// For the work of a transaction: throws what the transaction then answers, which undoes it.
inline void Demand(bool isMet, const ResultCode& code)
{
    if (!isMet) {
        throw ResultCode(code);
    }
}

// One connection with the statements that it has prepared. For one thread at a time. Every member throws DatabaseError.
class Connection : public SQLite::Database {
public:
    using Work = std::function<void(Connection&)>;

    // Opens the file, or a database in memory for ":memory:", and makes it if there is none.
    explicit Connection(const std::string& path);

    // The statement with its values, from the left. It is good until the same text is prepared again or the transaction
    // ends.
    template <class... Values>
    SQLite::Statement& Prepare(const std::string& sql, const Values&... values)
    {
        SQLite::Statement& statement = statements_.try_emplace(sql, *this, sql).first->second;
        statement.tryReset();
        SQLite::bind(statement, values...);
        return statement;
    }

    // Runs a statement to its end. Answers how many rows it changed; what a foreign key took along does not count.
    template <class... Values>
    int Run(const std::string& sql, const Values&... values)
    {
        return Prepare(sql, values...).exec();
    }

    // Runs `work` between `begin` ("BEGIN", or "BEGIN IMMEDIATE" to write) and the end of the transaction. Answers 0
    // when what was written is on the disk, or a code that `work` threw; then, and when something is thrown, nothing is
    // written. To write, it waits for another process that does for as long as the connection allows.
    int32_t Transact(const char* begin, const Work& work);

private:
    void Release();

    std::map<std::string, SQLite::Statement> statements_;
};

// The device: users, apps and their permission groups, what was chosen, what was used, and policies, in one SQLite
// database. The tables and their rules are in database.cpp.
//
// A change is one transaction: when it is answered, it is on the disk. Readers see the state before it or after it, and
// neither wait for it nor hold it up; but when the log has grown long, a change waits for them, a tenth of a second at
// most, to begin it anew. A database in memory has one connection, which all take in turn.
//
// Thread safety: every operation may be called from any thread.
class Database {
public:
    enum class Use {
        SERVE,  // the service: one at a time for a file; `<path>.lock`, which stays behind empty, sees to it
        FEED,   // a program that writes beside it
    };

    // Opens the file, makes it (mode 0600) when there is none, and brings an older one to today's schema in one
    // transaction. An empty path keeps all in memory. Throws DatabaseError, which says what is wrong, for a file that
    // is no database or that of another program, has a newer schema, cannot be written, or is served already; the file
    // is left as it is.
    explicit Database(const std::string& path, Use use = Use::SERVE);

    // Both run `work` in a transaction, see `Connection::Transact`.
    int32_t Read(const Connection::Work& work);
    int32_t Write(const Connection::Work& work);

private:
    void KeepOthersAway();
    void Prepare();

    const std::string path_;
    // Its end closes the lock file. It goes last: the next to take it finds the database closed.
    std::shared_ptr<void> lock_;

    std::mutex writing_;                  // held for a change, the disk included; in memory for a read as well
    std::unique_ptr<Connection> writer_;  // guarded by writing_

    std::mutex readersMutex_;        // held for as long as a pointer takes to move
    std::list<Connection> readers_;  // the idle ones, as many as have read at once
};

}  // namespace SecurityPrivacyTools
