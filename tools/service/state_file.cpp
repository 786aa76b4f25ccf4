// SPDX-License-Identifier: Apache-2.0
#include "service/state_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/json_input.h"

namespace SecurityPrivacyExample {
namespace {

constexpr const char* FORMAT = "security-privacy-state";
constexpr int32_t VERSION = 1;
constexpr mode_t OWNER_ONLY = 0600;

// Closes a descriptor at the end of a block.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor()
    {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return number_; }

private:
    const int number_;
};

bool Report(const std::string& path, const char* step)
{
    std::fprintf(stderr, "security-privacy-service: %s: cannot %s: %s\n", path.c_str(), step, std::strerror(errno));
    return false;
}

std::string Serialise(const DeviceState& state)
{
    nlohmann::ordered_json groups = nlohmann::ordered_json::array();
    for (const auto& [key, choice] : state.groupChoices) {
        groups.push_back({{"bundleName", key.bundleName},
                          {"uid", key.uid},
                          {"permissionGroup", key.permissionGroup},
                          {"checkedState", choice.checkedState},
                          {"flags", choice.flags}});
    }
    nlohmann::ordered_json bundles = nlohmann::ordered_json::array();
    for (const auto& [name, bundle] : state.bundles) {
        bundles.push_back({{"bundleName", name},
                           {"fingerprint", bundle->fingerprint},
                           {"versionCode", bundle->versionCode},
                           {"policies", bundle->values}});
    }
    const nlohmann::ordered_json root{
        {"format", FORMAT}, {"version", VERSION}, {"groupChoices", groups}, {"gTokens", bundles}};
    return root.dump(1) + "\n";
}

DeviceState Parse(const std::string& path)
{
    const JsonDocument document(path);
    const JsonNode root = document.Root();
    root.RequireFormat(FORMAT, VERSION);
    root.AllowOnly({"format", "version", "groupChoices", "gTokens"});

    DeviceState state;
    for (const JsonNode& item : root["groupChoices"].Items()) {
        item.AllowOnly({"bundleName", "uid", "permissionGroup", "checkedState", "flags"});
        GroupKey key{item["bundleName"].Text(), item["uid"].Int32(), item["permissionGroup"].Text()};
        state.groupChoices[std::move(key)] = {item["checkedState"].Text(), item["flags"].Integer()};
    }
    ReadPolicies(root["gTokens"], state);
    return state;
}

bool WriteAll(int descriptor, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

bool WriteBeside(const std::string& path, const std::string& text)
{
    // Whoever made the file beforehand could keep it open, so it is always a new one.
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return Report(path, "remove");
    }
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, OWNER_ONLY));
    if (file.Get() < 0) {
        return Report(path, "create");
    }
    if (!WriteAll(file.Get(), text)) {
        return Report(path, "write");
    }
    return ::fsync(file.Get()) == 0 || Report(path, "sync");
}

// A renaming lasts only once the folder is on the disk.
bool SyncFolder(const std::string& path)
{
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return (descriptor.Get() >= 0 && ::fsync(descriptor.Get()) == 0) || Report(folder, "sync");
}

}  // namespace

StateFile::StateFile(std::string path) : path_(std::move(path))
{
    const std::string lockPath = path_ + ".lock";
    lock_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, OWNER_ONLY);
    if (lock_ < 0) {
        throw InputError(lockPath + ": cannot open: " + std::strerror(errno));
    }
    if (::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(lock_);
        throw InputError(error == EWOULDBLOCK ? path_ + ": another service uses this state file"
                                              : lockPath + ": cannot lock: " + std::strerror(error));
    }
}

StateFile::~StateFile()
{
    ::close(lock_);
}

std::optional<DeviceState> StateFile::Load() const
{
    if (::access(path_.c_str(), F_OK) != 0 && errno == ENOENT) {
        return std::nullopt;
    }
    try {
        return Parse(path_);
    } catch (const InputError& error) {
        throw InputError(std::string(error.what()) +
                         "\nThe state file is left as it is; move it away to start afresh.");
    }
}

bool StateFile::Save(const DeviceState& state) const
{
    const std::string beside = path_ + ".new";
    if (!WriteBeside(beside, Serialise(state))) {
        return false;
    }
    if (::rename(beside.c_str(), path_.c_str()) != 0) {
        return Report(path_, "replace");
    }
    // From here on the new state is the one that a restart finds, unless the machine loses power; to take the change
    // back now would make it the other way round. So a folder that cannot be synced is reported and no more.
    SyncFolder(path_);
    return true;
}

}  // namespace SecurityPrivacyExample
