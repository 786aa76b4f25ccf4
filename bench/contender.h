// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace bench {

// The five things that are measured, and `none`: a request with empty fields and nothing to bring back.
enum class Case { kSmall, kBulk, kLeast, kUsage, kToken, kNone };

// One case as the command line gives it.
struct Workload {
    Case kind = Case::kNone;
    size_t records = 0;       // how many records come back
    size_t requestBytes = 0;  // for the contender without a codec: the length of its messages
    size_t replyBytes = 0;
};

// One client with its connection.
class Client {
public:
    virtual ~Client() = default;

    // One request and its whole answer, which replaces the one before. Throws when it fails.
    virtual void Call() = 0;

    // Whether the last answer holds what the makers of records.h make.
    virtual bool IsAnswerRight() const = 0;
};

// Each contender is a program of its own, so that its memory is its own, and defines these two. Both sides keep their
// sockets in `directory`, which the two of them have to themselves.

// Makes the workload's records ready, listens, calls `AnnounceReady` and serves until the process is ended.
void Serve(const std::string& directory, const Workload& workload);

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload);

// Tells the driver that a client may connect.
void AnnounceReady();

}  // namespace bench
