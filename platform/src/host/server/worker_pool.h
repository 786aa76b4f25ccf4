// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/eventfd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/connection.h"

namespace VARN::Host {

// How soon the visits to one connection follow each other. Only the connection's owner changes it.
struct Pace {
    std::atomic<int64_t> lastVisit{0};  // when it began, in milliseconds; relaxed: any thread may read how long ago
    uint32_t quickVisits = 0;
};

// The threads that run a server's requests. A worker is in one of three states:
//
//   idle      waits for an event of any connection, with the other idle ones
//   busy      serves a connection
//   staying   has served a connection whose requests keep coming, and waits for that one alone
//
// Three rules connect them:
//
//   1. While there are connections, one is idle, or all are busy. When the last idle worker gets work, it starts
//      another one, up to the limit. At the limit it wakes one that stays, which then becomes idle.
//   2. A worker stays only while another is idle, for the other connections, and a second one is busy or stays. Several
//      busy clients then have a thread each, which the scheduler brings to its client's processor. A single one fares
//      better with whichever worker is idle.
//   3. Once a second a staying worker that has work wakes another, which becomes idle. If that one is needed it stays
//      again at once; if its client is silent, it no longer counts as busy.
//
// A wake-up may reach a worker that has just got work. It serves that first and leaves the wake-up for others; when it
// stops staying and none is idle, it wakes the next.
//
// Memory order: `idle_` and `staying_` are sequentially consistent. A worker counts itself as staying and then reads
// `idle_` (rule 2). The last idle one takes itself out of `idle_` and then reads `staying_` (rule 1). In the one order
// of these four steps one of the two reads comes last and sees what the other wrote: either the first does not stay, or
// the second wakes it.
//
// Thread safety: `Start` and `Stop` are for the owner, one after the other; the rest is for the workers.
class WorkerPool {
public:
    // The visits of one worker to one connection, between which it may stay with it.
    class Stay {
    public:
        Stay(WorkerPool& pool, Pace& pace) noexcept : pool_(pool), pace_(pace) {}
        ~Stay();
        Stay(const Stay&) = delete;
        Stay& operator=(const Stay&) = delete;

        // To be called after each visit with the time when it began, in milliseconds, and whether the connection allows
        // to stay. True when the visits follow each other quickly, and the rules allow it too.
        bool GoesOn(int64_t begin, bool isAllowed) noexcept;
        // Waits for input. False when there was none for so many milliseconds (-1: as long as it takes), or until the
        // worker was woken: it does not stay any longer.
        bool AwaitInput(int fd, int milliseconds) const noexcept;

    private:
        WorkerPool& pool_;
        Pace& pace_;
        bool isStaying_ = false;
    };

    // At most `workers` threads, and `maxSpareWorkers` more which end when they are idle; each runs `work` once.
    // `context` outlives the pool.
    WorkerPool(ServiceContext& context, std::function<void(Worker&)> work);
    ~WorkerPool() { Stop(); }

    // Throws what std::thread does when the system refuses the first one; for want of others it only writes a line. All
    // workers, also later ones, inherit the caller's signal mask.
    void Start();

    // Once the service stops: waits until all have returned from `work`. Those that stay are woken; the owner wakes the
    // idle ones.
    void Stop();

    // Whether there are more than the usual ones, and, for one that has been idle, whether it has to end.
    bool HasSpare() const noexcept { return Count() > context_.options.workers; }
    bool Retire(const Worker& self) noexcept;

    // Those that were started and have not retired.
    size_t Count() const noexcept { return workers_.load(std::memory_order_relaxed); }

    // Tells of workers that are stuck, once for each request, and has others take their place. Returns when to look
    // again, `later` for those that are known.
    int64_t LookForStuck(int64_t now, int64_t later);
    size_t CountStuck() const noexcept { return stuck_.load(std::memory_order_relaxed); }

    // Idle while `wait` runs. It returns whether it got work.
    template <class Wait>
    void AwaitAny(Wait wait)
    {
        idle_.fetch_add(1);
        const bool hasWork = wait();
        // Rule 1.
        if (idle_.fetch_sub(1) == 1 && hasWork && !AddWorker() && staying_.load() != 0) {
            WakeStaying();
        }
    }

private:
    bool MayStay() const noexcept;
    void WakeStaying() const noexcept { ::eventfd_write(wakeEvent_.Get(), 1); }
    bool AddThread();
    bool AddWorker() noexcept;

    ServiceContext& context_;
    const std::function<void(Worker&)> work_;
    UniqueFd wakeEvent_;  // readable: one that stays has to stop staying

    std::atomic<size_t> idle_{0};
    std::atomic<size_t> staying_{0};

    // Relaxed: to go by an old number is to stay a moment too long or too short.
    std::atomic<size_t> workers_{0};
    // Relaxed: the worker that wins the exchange wakes, and nothing else depends on it.
    std::atomic<int64_t> lastWake_{0};

    Mutex mutex_;
    std::list<Worker> threads_ GUARDED_BY(mutex_);
    std::list<Worker> retired_ GUARDED_BY(mutex_);  // they end now
    size_t lastNumber_ GUARDED_BY(mutex_) = 0;
    std::atomic<size_t> stuck_{0};
};

}  // namespace VARN::Host
