// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "service/device_state.h"

namespace SecurityPrivacyExample {

// The file that keeps the state across restarts. It holds fingerprints, so only its owner may read it.
//
// A new state is written beside the file, brought to the disk and renamed over it: whatever happens, the file holds the
// old state or the new one. `<path>.lock`, which stays behind empty, keeps a second service off the same file.
//
// Thread safety: one call at a time.
class StateFile {
public:
    // Takes the lock. Throws InputError when the folder cannot be used or another process holds the lock.
    explicit StateFile(std::string path);
    ~StateFile();

    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    // The state; nothing when there is no file yet. Throws InputError for a file that is cut short, is none of ours or
    // cannot be read; it is left as it is.
    std::optional<DeviceState> Load() const;

    // Replaces the state. False, after a message on standard error, when it cannot be brought to the disk; the old file
    // is then still in its place.
    bool Save(const DeviceState& state) const;

private:
    const std::string path_;
    int lock_ = -1;
};

}  // namespace SecurityPrivacyExample
