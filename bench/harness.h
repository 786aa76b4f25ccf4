// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "bench/records.h"

namespace bench {

// One client with its connection.
class Client {
public:
    virtual ~Client() = default;

    // One request and its whole answer, which replaces the one before. Throws when it fails.
    virtual void Call() = 0;

    // Drops the last answer, so that the next call does not have to.
    virtual void Forget() = 0;

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
