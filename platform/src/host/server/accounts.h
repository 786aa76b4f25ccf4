// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

namespace VARN::Host {

class Slot;

// What one user holds of a server. It exists while the user has a connection.
struct Account {
    explicit Account(uid_t user) noexcept;

    const uid_t uid;
    const bool isTrusted;  // root and the service's own user, which have a reserve

    // Sequentially consistent, see Stock.
    std::atomic<size_t> connections{0};
    std::atomic<size_t> requestBytes{0};
    std::atomic<size_t> replyBytes{0};
    std::atomic<size_t> bytes{0};  // both
    std::atomic<size_t> workers{0};
    // Relaxed: read for statistics alone.
    std::atomic<uint64_t> refused{0};

    // The connections that wait for their turn, and how many; this user in the row of those that have some. See Turns,
    // whose lock guards the lists.
    std::list<Slot*> queue;
    std::atomic<size_t> waiting{0};
    std::list<Account*> turn{this};
};

// One thing that users share: connections, bytes or workers.
//
// The attack it stops: one user, or eight that work together, take all there is, and every other user is turned away. A
// fixed limit for each user does not stop it: eight times the limit may be everything. So what a user may hold depends
// on what is left. With n other users that hold something it is
//
//     share = (shared - held by the others) / (n + 1)
//
// but at least the floor, so that a newcomer is served even when the others hold it all, and never more than the limit
// for one user or than what is left of the whole. The last sixteenth of the whole is for root and the service's own
// user. An example for 256 MiB, of which 192 are shared: one user alone may hold its 128 MiB. The next gets (192 - 128)
// / 2 = 32, the third (192 - 160) / 3 = 10, the fourth 5: a newcomer always finds some, and in the end its floor.
//
// Thread safety: any thread may call anything. Sequentially consistent, since Turns compares what is held with what
// waits.
class Stock {
public:
    struct Rules {
        size_t shared;  // what the shares are of
        size_t whole;   // what there is; beyond the shares it serves floors
        size_t mostOfUser;
        size_t floor;
    };
    explicit Stock(const Rules& rules) noexcept : rules_(rules) {}

    enum class Answer {
        TAKEN,
        BEYOND_SHARE,  // the user holds its share
        NOTHING_LEFT,  // it would be within its share, but the others hold more than theirs
    };
    // Counts `amount` more as held, unless the user may not have it; then `allowed` is what it may hold.
    Answer Take(const Account& account, std::atomic<size_t>& mine, size_t amount, size_t& allowed) noexcept;
    void Give(std::atomic<size_t>& mine, size_t amount) noexcept;

    size_t CountHeld() const noexcept { return all_.load() & HELD_MASK; }

    // Adds to what is shared, in place of workers that are stuck.
    void SetExtra(size_t extra) noexcept { extra_.store(extra, std::memory_order_relaxed); }

private:
    // The number of users stands in the same word as what they hold: both are of one moment, and change in one step.
    static constexpr unsigned USER_SHIFT = 44;
    static constexpr uint64_t ONE_USER = uint64_t{1} << USER_SHIFT;
    static constexpr uint64_t HELD_MASK = ONE_USER - 1;

    const Rules rules_;
    std::atomic<uint64_t> all_{0};
    // Relaxed: to go by an old number is to serve a request a moment later.
    std::atomic<size_t> extra_{0};
};

}  // namespace VARN::Host
