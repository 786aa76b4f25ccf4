// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/client/link.h"
#include "varn/remote_object.h"

namespace VARN::Host {

// The stand-in for a service that listens on a socket. It owns the connections to it: each request takes an idle one,
// or makes one, and gives it back when the reply was whole. After any failure the connection is closed, so the next
// request never meets the rest of an earlier one, and nothing is ever sent twice.
//
// A request makes five system calls: sendmsg, recv, and three that no other of them can stand in for. The look (recv)
// in `LoadSystemAbility` has a service that is gone waited for, and finds what came unasked before it passes for the
// next reply. geteuid and getegid: any thread may change its own identity behind the C library's back, and a connection
// is never used as another user than the one it was made as.
//
// Thread safety: every operation may be called from any thread; requests that run at the same time have a connection
// each.
class Channel final : public IRemoteObject {
public:
    Channel(std::string directory, int32_t id);

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    // Whether the last attempt to reach the service failed, whichever thread made it. For a thread that has found the
    // service and not asked yet it is alive.
    bool IsObjectDead() const override;

    // Makes sure that an idle connection is there that was alive just now. Returns 0 or the errno of what failed, with
    // `problem` saying what was tried and where. Does not wait for a service to appear.
    int Prepare(std::string& problem);

    const std::string& GetDirectory() const noexcept { return directory_; }

private:
    std::unique_ptr<Link> TakeAlive(const Link::Identity* user);
    void GiveBack(std::unique_ptr<Link>&& link);
    int32_t Report(uint32_t code, const char* step, int error, const std::string& problem);

    const std::string directory_;
    const std::string path_;
    // Relaxed: a hint with nothing attached.
    std::atomic<bool> dead_{false};
    std::vector<std::unique_ptr<Link>> idle_ GUARDED_BY(clientMutex);  // the last used at the end
};

}  // namespace VARN::Host
