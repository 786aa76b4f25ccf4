// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/base/thread_safety.h"
#include "host/server/accounts.h"
#include "varn/host/ability_server.h"

namespace VARN::Host {

// What a server ends a connection for, or (REPLY_LENGTH) fails a request for, or (the last two) is itself kept from.
enum class Limit {
    CONNECTIONS,
    CONNECTIONS_PER_USER,
    REQUEST_BYTES,
    REQUEST_TIME,
    REPLY_LENGTH,
    REPLY_TIME,
    REPLY_BYTES,
    BEGUN_REQUEST_BYTES,
    PROTOCOL,
    DESCRIPTORS_SENT,
    DESCRIPTORS,
    WORKERS
};

// What all parts of one server share.
//
// Thread safety: any thread may call anything.
class ServiceContext {
public:
    ServiceContext(int32_t serviceId, sptr<IPCObjectStub> object, AbilityServerOptions all);
    // Tells of the refusals that were left out since the last lines.
    ~ServiceContext();

    // Counts that a limit bit, also in `account` unless that is null, and writes a warn line, at most one a second for
    // each limit: a peer that is refused in a loop must not fill the log. The next line of the limit, or the end of the
    // server, says how many were left out.
    void Refuse(Account* account, Limit limit, const Caller& caller, uint64_t used, uint64_t allowed,
                const char* detail = "");
    // How often a limit bit, with and without a line.
    uint64_t CountRefused() const noexcept { return refused_.load(std::memory_order_relaxed); }

    // What a reply may grow to while it is made. Its length is not known before, so it is bounded by what is left: a
    // quarter of it, shared by the workers at work, lest one request asks for the same long text ten thousand times.
    size_t GetReplyBound() const noexcept;

    // Whether much memory was used since the last call. Many connections, each with a little, held much as well.
    bool TakeBurst() noexcept { return burst_.exchange(false, std::memory_order_relaxed); }
    void NoteEnd() noexcept { burst_.store(true, std::memory_order_relaxed); }
    // True when that is much.
    bool NoteUse(size_t amount) noexcept
    {
        const bool isMuch = amount >= BURST_BYTES;
        if (isMuch) {
            burst_.store(true, std::memory_order_relaxed);
        }
        return isMuch;
    }

    const int32_t id;
    const sptr<IPCObjectStub> stub;
    const AbilityServerOptions options;
    // What its users share.
    Stock connections;
    Stock workers;
    Stock bytes;  // of begun requests and waiting replies
    // The server ends: nothing begins any more. Relaxed: a thread that misses it finds out under a lock, or by the
    // event that is written next.
    std::atomic<bool> stopping{false};

private:
    struct Refusals {
        int64_t last = 0;  // when a line was written, in milliseconds; 0: never
        uint64_t suppressed = 0;
    };
    static constexpr size_t LIMITS = static_cast<size_t>(Limit::WORKERS) + 1;
    static constexpr size_t BURST_BYTES = 65536;

    // Relaxed: it is looked at again and again.
    std::atomic<bool> burst_{false};
    std::atomic<uint64_t> refused_{0};
    Mutex mutex_;
    std::array<Refusals, LIMITS> refusals_ GUARDED_BY(mutex_);
};

// Bytes that stand in a user's account until the charge goes.
class Charge {
public:
    // `kind` is BEGUN_REQUEST_BYTES or REPLY_BYTES.
    Charge(ServiceContext& context, Account& account, Limit kind) noexcept
        : context_(context), account_(account), kind_(kind)
    {
    }
    ~Charge();
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;

    // False past a limit: then no more is held, and `caller` is refused, see ServiceContext::Refuse.
    bool GrowTo(size_t bytes, const Caller& caller);

private:
    std::atomic<size_t>& OfKind() const noexcept
    {
        return kind_ == Limit::REPLY_BYTES ? account_.replyBytes : account_.requestBytes;
    }

    ServiceContext& context_;
    Account& account_;
    const Limit kind_;
    size_t bytes_ = 0;
};

}  // namespace VARN::Host
