// SPDX-License-Identifier: Apache-2.0
#include "service/database.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

namespace SecurityPrivacyTools {
namespace {

constexpr const char* IN_MEMORY = ":memory:";

// Tells our databases from those of other programs: "SPdv".
constexpr int64_t APPLICATION_ID = 0x53506476;

// What each connection is told. The wait is for the batches of a program that writes beside the service; it ends well
// before a client gives up. The cache, in KiB, is for each connection.
constexpr const char* SETTINGS =
    "PRAGMA busy_timeout = 2000;"
    "PRAGMA foreign_keys = ON;"
    "PRAGMA synchronous = FULL;"
    "PRAGMA cache_size = -512;"
    "PRAGMA journal_size_limit = 4194304;"
    "PRAGMA trusted_schema = OFF;";

// The attack it stops: reads that overlap without end. SQLite begins its log anew only at a moment without readers, so
// the log grows with each change until the disk is full. Past this length a change waits for those who read now.
constexpr uintmax_t MAX_LOG_BYTES = uintmax_t{16} * 1024 * 1024;

// Each step brings a database from the version before to its own; the first from nothing to 1. Never change one that
// was released: add another.
constexpr const char* MIGRATIONS[] = {
    R"sql(
CREATE TABLE user (id INTEGER PRIMARY KEY, is_listed INTEGER NOT NULL) STRICT;
CREATE TABLE permission_group (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, is_listed INTEGER NOT NULL) STRICT;
CREATE TABLE app (
    id INTEGER PRIMARY KEY, bundle TEXT NOT NULL, user INTEGER NOT NULL REFERENCES user ON DELETE CASCADE,
    uid INTEGER NOT NULL UNIQUE, UNIQUE (bundle, user)) STRICT;
CREATE INDEX app_of_user ON app (user);
-- A group that an app holds, as the device came with it; the states it shows; what a client chose in place of it.
CREATE TABLE app_group (
    id INTEGER PRIMARY KEY, app INTEGER NOT NULL REFERENCES app ON DELETE CASCADE,
    permission_group INTEGER NOT NULL REFERENCES permission_group ON DELETE CASCADE,
    state TEXT NOT NULL, flags INTEGER NOT NULL, disabled_reason TEXT NOT NULL, UNIQUE (app, permission_group)) STRICT;
CREATE INDEX app_group_of_group ON app_group (permission_group);
CREATE TABLE shown_state (
    app_group INTEGER NOT NULL REFERENCES app_group ON DELETE CASCADE, place INTEGER NOT NULL,
    state TEXT NOT NULL, is_disabled INTEGER NOT NULL, PRIMARY KEY (app_group, place)) STRICT, WITHOUT ROWID;
CREATE TABLE choice (
    app_group INTEGER PRIMARY KEY REFERENCES app_group ON DELETE CASCADE, state TEXT NOT NULL,
    flags INTEGER NOT NULL) STRICT;
-- Times in milliseconds since the epoch.
CREATE TABLE usage (
    id INTEGER PRIMARY KEY, began INTEGER NOT NULL, ended INTEGER NOT NULL,
    app INTEGER NOT NULL REFERENCES app ON DELETE CASCADE,
    permission_group INTEGER NOT NULL REFERENCES permission_group ON DELETE CASCADE,
    mode INTEGER NOT NULL, app_state INTEGER NOT NULL, screen_state INTEGER NOT NULL, times INTEGER NOT NULL) STRICT;
CREATE INDEX usage_of_span ON usage (began);
CREATE INDEX usage_of_app ON usage (app, began);
CREATE INDEX usage_of_group ON usage (permission_group, began);
CREATE TABLE bundle (
    id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, fingerprint TEXT NOT NULL, version_code INTEGER NOT NULL) STRICT;
CREATE TABLE policy (
    bundle INTEGER NOT NULL REFERENCES bundle ON DELETE CASCADE, name TEXT NOT NULL, value INTEGER NOT NULL,
    PRIMARY KEY (bundle, name)) STRICT, WITHOUT ROWID;
)sql",
};
constexpr auto VERSION = static_cast<int64_t>(std::size(MIGRATIONS));

// Filters make statements of many shapes; a client that tries them all must not fill the memory.
constexpr size_t MAX_KEPT_STATEMENTS = 48;
// Longer ones have lists of numbers in them, and are hardly asked for twice.
constexpr size_t MAX_KEPT_BYTES = 1024;

// A file that is not there yet is private from its first moment.
void MakeFile(const std::string& path)
{
    const int made = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (made >= 0) {
        ::close(made);
    } else if (errno != EEXIST) {
        throw DatabaseError(std::string("cannot open: ") + std::strerror(errno));
    } else if (!std::filesystem::is_regular_file(path)) {
        throw DatabaseError("is not a file");
    }
}

}  // namespace

Connection::Connection(const std::string& path)
    : SQLite::Database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX)
{
    exec(SETTINGS);
}

int32_t Connection::Transact(const char* begin, const Work& work)
{
    int32_t code = 0;
    try {
        Run(begin);
        try {
            work(*this);
        } catch (const ResultCode& refusal) {
            code = refusal;
        }
        Release();
        if (code == 0) {
            Run("COMMIT");
        } else {
            tryExec("ROLLBACK");
        }
        return code;
    } catch (...) {
        Release();
        // SQLite itself ends a transaction that it cannot complete, such as on a full disk.
        tryExec("ROLLBACK");
        throw;
    }
}

// Ends the use of all statements.
void Connection::Release()
{
    for (auto kept = statements_.begin(); kept != statements_.end();) {
        kept->second.tryReset();
        kept->second.clearBindings();
        const bool isWorthIt = kept->first.size() <= MAX_KEPT_BYTES && statements_.size() <= MAX_KEPT_STATEMENTS;
        kept = isWorthIt ? std::next(kept) : statements_.erase(kept);
    }
}

Database::Database(const std::string& path, Use use) : path_(path.empty() ? IN_MEMORY : path)
{
    try {
        if (path_ != IN_MEMORY) {
            if (use == Use::SERVE) {
                KeepOthersAway();
            }
            MakeFile(path_);
        }
        writer_ = std::make_unique<Connection>(path_);
        Prepare();
    } catch (const DatabaseError& error) {
        throw DatabaseError(path_ + ": " + error.what());
    }
}

void Database::KeepOthersAway()
{
    const int file = ::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (file < 0) {
        throw DatabaseError(std::string("cannot open its lock: ") + std::strerror(errno));
    }
    lock_ = std::shared_ptr<void>(nullptr, [file](void*) { ::close(file); });
    if (::flock(file, LOCK_EX | LOCK_NB) != 0) {
        throw DatabaseError(errno == EWOULDBLOCK ? "another service uses this database" : std::strerror(errno));
    }
}

void Database::Prepare()
{
    // Nothing is written before it is clear whose database this is.
    const bool isNew = writer_->execAndGet("PRAGMA page_count").getInt64() == 0;
    if (!isNew && writer_->execAndGet("PRAGMA application_id").getInt64() != APPLICATION_ID) {
        throw DatabaseError("is the database of another program");
    }
    if (writer_->execAndGet("PRAGMA user_version").getInt64() > VERSION) {
        throw DatabaseError("was written by a newer version of this program");
    }
    // SQLite gives the files beside it the mode of the database, so that is set before there are any.
    if (path_ != IN_MEMORY) {
        using std::filesystem::perms;
        std::filesystem::permissions(path_, perms::owner_exec | perms::group_all | perms::others_all,
                                     std::filesystem::perm_options::remove);
    }
    writer_->exec("PRAGMA journal_mode = WAL");
    writer_->Transact("BEGIN IMMEDIATE", [](Connection& connection) {
        for (int64_t version = connection.execAndGet("PRAGMA user_version").getInt64(); version < VERSION; ++version) {
            connection.exec(MIGRATIONS[version]);
            connection.exec("PRAGMA application_id = " + std::to_string(APPLICATION_ID) +
                            "; PRAGMA user_version = " + std::to_string(version + 1));
        }
    });
}

int32_t Database::Read(const Connection::Work& work)
{
    if (path_ == IN_MEMORY) {
        return Write(work);
    }
    std::list<Connection> reader;
    std::unique_lock<std::mutex> lock(readersMutex_);
    if (!readers_.empty()) {
        reader.splice(reader.begin(), readers_, readers_.begin());
    }
    lock.unlock();
    if (reader.empty()) {
        reader.emplace_back(path_);
    }
    // One state of the device for all statements.
    const int32_t result = reader.front().Transact("BEGIN", work);
    lock.lock();
    readers_.splice(readers_.begin(), reader);
    return result;
}

int32_t Database::Write(const Connection::Work& work)
{
    const std::lock_guard<std::mutex> lock(writing_);
    const int32_t result = writer_->Transact("BEGIN IMMEDIATE", work);
    std::error_code error;
    const uintmax_t logBytes = path_ == IN_MEMORY ? 0 : std::filesystem::file_size(path_ + "-wal", error);
    if (!error && logBytes > MAX_LOG_BYTES) {
        // When it fails, what was written is on the disk already; the next change tries again.
        writer_->tryExec("PRAGMA busy_timeout = 100; PRAGMA wal_checkpoint(RESTART)");
        writer_->exec(SETTINGS);
    }
    return result;
}

}  // namespace SecurityPrivacyTools
