// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "security_privacy/gtoken_info.h"

namespace SecurityPrivacyTools {

// A file cannot be used. The text says which file, where in it and what is wrong, but quotes nothing of its contents:
// they may hold fingerprints.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The whole file. Throws InputError when it cannot be read or is longer than `maxBytes` (a device or a pipe may never
// end).
std::string ReadFile(const std::string& path, size_t maxBytes);

// A value of a JSON file that knows its place in it, so that a complaint can say where. It keeps the file's contents
// alive. Every member throws InputError when the value is not what is asked for.
class JsonNode {
public:
    std::string Text() const;
    int64_t Integer(int64_t min = std::numeric_limits<int64_t>::min(),
                    int64_t max = std::numeric_limits<int64_t>::max()) const;
    int32_t Int32(int32_t min = std::numeric_limits<int32_t>::min()) const
    {
        return static_cast<int32_t>(Integer(min, std::numeric_limits<int32_t>::max()));
    }
    std::vector<JsonNode> Items() const;
    std::vector<std::pair<std::string, JsonNode>> Members() const;

    JsonNode operator[](const char* key) const;
    std::optional<JsonNode> Find(const char* key) const;

    // Refuses members of other names, which would be misspelt ones that have no effect.
    void AllowOnly(std::initializer_list<std::string_view> keys) const;
    // Refuses a document whose "format" and "version" are not these.
    void RequireFormat(const char* format, int32_t version) const;

    [[noreturn]] void Fail(const std::string& complaint) const;

private:
    friend JsonNode ParseJson(const std::string& name, const std::string& text);

    JsonNode(std::shared_ptr<const nlohmann::json> value, std::string file, std::string place)
        : value_(std::move(value)), file_(std::move(file)), place_(std::move(place))
    {
    }

    void Expect(bool isMet, const char* what) const;
    JsonNode Member(const nlohmann::json& member, const std::string& key) const;

    std::shared_ptr<const nlohmann::json> value_;  // shares the file's contents
    std::string file_;
    std::string place_;  // "apps[3].uid"; empty for the file as a whole
};

// Both throw InputError when the text is not JSON, the first also when the file cannot be read. `name` stands for the
// path of text that was read already.
JsonNode ReadJson(const std::string& path);
JsonNode ParseJson(const std::string& name, const std::string& text);

// {"bundleName": ..., "fingerprint": ..., "versionCode": ..., "policies": {name: value, ...}}
VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo ReadGTokenInfo(const JsonNode& node);

}  // namespace SecurityPrivacyTools
