// SPDX-License-Identifier: Apache-2.0
#include "service/usage_recorder.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/json_input.h"
#include "common/result_codes.h"
#include "service/device_import.h"

namespace SecurityPrivacyExample {
namespace {

// Longer than any event: input that never ends a line must not fill the memory.
constexpr size_t MAX_LINE_BYTES = 65536;
// Events stored or dropped in one transaction, so that others who write wait a few milliseconds at most.
constexpr size_t MAX_BATCH = 1000;

class LineReader {
public:
    explicit LineReader(const std::string& path)
        : name_(path == "-" ? "standard input" : path),
          descriptor_(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (descriptor_ < 0) {
            Fail();
        }
    }
    ~LineReader()
    {
        if (descriptor_ != STDIN_FILENO) {
            ::close(descriptor_);
        }
    }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    const std::string& Name() const { return name_; }

    // Waits for a line and takes with it what has arrived behind it; nothing at the end.
    std::vector<std::string> Next()
    {
        std::vector<std::string> lines;
        while (lines.size() < MAX_BATCH && (TakeLine(lines) || ((lines.empty() || HasArrived()) && Receive()))) {
        }
        if (isAtEnd_ && lines.size() < MAX_BATCH && !pending_.empty()) {
            lines.push_back(std::move(pending_));
            pending_.clear();
        }
        return lines;
    }

private:
    bool TakeLine(std::vector<std::string>& lines)
    {
        const size_t end = pending_.find('\n', begin_);
        if (end == std::string::npos) {
            pending_.erase(0, begin_);
            begin_ = 0;
            return false;
        }
        lines.push_back(pending_.substr(begin_, end - begin_));
        begin_ = end + 1;
        return true;
    }

    bool HasArrived() const
    {
        pollfd input = {descriptor_, POLLIN, 0};
        return ::poll(&input, 1, 0) > 0;
    }

    // False at the end, and when there is a line too long to go on.
    bool Receive()
    {
        char buffer[16384];
        ssize_t count;
        while ((count = ::read(descriptor_, buffer, sizeof(buffer))) < 0 && errno == EINTR) {
        }
        if (count < 0) {
            Fail();
        }
        isAtEnd_ = count == 0 || pending_.size() > MAX_LINE_BYTES;
        pending_.append(buffer, static_cast<size_t>(count));
        return !isAtEnd_;
    }

    [[noreturn]] void Fail() const { throw InputError(name_ + ": cannot read: " + std::strerror(errno)); }

    const std::string name_;
    const int descriptor_;
    std::string pending_;  // begins with the line that is next, or at begin_ while lines are taken
    size_t begin_ = 0;
    bool isAtEnd_ = false;
};

void StoreLine(Connection& connection, const std::string& place, const std::string& line)
{
    if (line.size() > MAX_LINE_BYTES) {
        throw InputError(place + ": is longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
    }
    const JsonDocument document(place, line);
    AddUsageEvent(connection, document.Root());
}

}  // namespace

int64_t RecordUsage(Database& database, const std::string& path)
{
    LineReader reader(path);
    int64_t stored = 0;
    for (std::vector<std::string> lines = reader.Next(); !lines.empty(); lines = reader.Next()) {
        int64_t number = stored;
        try {
            database.Write([&](Connection& connection) {
                for (const std::string& line : lines) {
                    ++number;
                    StoreLine(connection, reader.Name() + ": line " + std::to_string(number), line);
                }
                return RESULT_OK;
            });
        } catch (const InputError& error) {
            throw InputError(std::string(error.what()) + "; the first " + std::to_string(stored) +
                             " lines are stored, and no other");
        }
        stored = number;
    }
    return stored;
}

int64_t DropUsageBefore(Database& database, int64_t time)
{
    int64_t dropped = 0;
    database.Write([&](Connection& connection) {
        Statement(connection,
                  "DELETE FROM usage WHERE id IN (SELECT id FROM usage WHERE began < ? ORDER BY began LIMIT ?)", time,
                  static_cast<int64_t>(MAX_BATCH))
            .Run();
        dropped = connection.Changes();
        return RESULT_OK;
    });
    return dropped;
}

}  // namespace SecurityPrivacyExample
