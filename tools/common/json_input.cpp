// SPDX-License-Identifier: Apache-2.0
#include "common/json_input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;

// More than any device's data; a wrong path must not take all memory.
constexpr size_t MAX_JSON_BYTES = size_t{256} * 1024 * 1024;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

[[noreturn]] void FailToRead(const std::string& path, int error)
{
    throw InputError(path + ": cannot read: " + std::strerror(error));
}

nlohmann::json Parse(const std::string& path, const std::string& text)
{
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& error) {
        // The parser's own message quotes the text around the error, which may be a fingerprint.
        const size_t position = std::min(error.byte > 0 ? error.byte - 1 : 0, text.size());
        const std::string before = text.substr(0, position);
        const size_t lineStart = before.rfind('\n') == std::string::npos ? 0 : before.rfind('\n') + 1;
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        throw InputError(path + ": " + (position == text.size() ? "ends too early" : "is not JSON") + ": line " +
                         std::to_string(line) + ", column " + std::to_string(position - lineStart + 1));
    }
}

std::string MemberPlace(const std::string& place, const std::string& key)
{
    return place.empty() ? key : place + "." + key;
}

}  // namespace

std::string ReadFile(const std::string& path, size_t maxBytes)
{
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        FailToRead(path, errno);
    }
    std::string text;
    char buffer[16384];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof(buffer), file.get())) > 0) {
        if (text.size() + count > maxBytes) {
            throw InputError(path + ": is longer than the " + std::to_string(maxBytes) + " bytes allowed");
        }
        text.append(buffer, count);
    }
    if (std::ferror(file.get()) != 0) {
        FailToRead(path, errno);
    }
    return text;
}

std::string JsonNode::Text() const
{
    if (!value_->is_string()) {
        Fail("expected a string");
    }
    return value_->get<std::string>();
}

int64_t JsonNode::Integer(int64_t min, int64_t max) const
{
    const bool fits = value_->is_number_unsigned()
                          ? value_->get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                          : value_->is_number_integer();
    if (!fits || value_->get<int64_t>() < min || value_->get<int64_t>() > max) {
        Fail("expected an integer from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return value_->get<int64_t>();
}

int32_t JsonNode::Int32(int32_t min) const
{
    return static_cast<int32_t>(Integer(min, std::numeric_limits<int32_t>::max()));
}

std::vector<JsonNode> JsonNode::Items() const
{
    if (!value_->is_array()) {
        Fail("expected a list");
    }
    std::vector<JsonNode> items;
    items.reserve(value_->size());
    for (const nlohmann::json& item : *value_) {
        items.emplace_back(item, *path_, place_ + "[" + std::to_string(items.size()) + "]");
    }
    return items;
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Members() const
{
    if (!value_->is_object()) {
        Fail("expected an object");
    }
    std::vector<std::pair<std::string, JsonNode>> members;
    for (const auto& [key, value] : value_->items()) {
        members.emplace_back(key, JsonNode(value, *path_, MemberPlace(place_, key)));
    }
    return members;
}

std::vector<std::string> JsonNode::Texts() const
{
    std::vector<std::string> texts;
    for (const JsonNode& item : Items()) {
        texts.push_back(item.Text());
    }
    return texts;
}

JsonNode JsonNode::operator[](const char* key) const
{
    const std::optional<JsonNode> member = Find(key);
    if (!member) {
        Fail(std::string("\"") + key + "\" is missing");
    }
    return *member;
}

std::optional<JsonNode> JsonNode::Find(const char* key) const
{
    if (!value_->is_object()) {
        Fail("expected an object");
    }
    const auto member = value_->find(key);
    if (member == value_->end()) {
        return std::nullopt;
    }
    return JsonNode(*member, *path_, MemberPlace(place_, key));
}

void JsonNode::AllowOnly(std::initializer_list<std::string_view> keys) const
{
    for (const auto& [key, node] : Members()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
            node.Fail("is not known here");
        }
    }
}

void JsonNode::RequireFormat(const char* format, int32_t version) const
{
    const std::optional<JsonNode> found = value_->is_object() ? Find("format") : std::nullopt;
    if (!found || *found->value_ != format) {
        Fail(std::string("is another kind of file: \"format\" is not \"") + format + "\"");
    }
    const int32_t foundVersion = (*this)["version"].Int32();
    if (foundVersion != version) {
        Fail("has version " + std::to_string(foundVersion) + ", only " + std::to_string(version) + " is understood");
    }
}

void JsonNode::Fail(const std::string& complaint) const
{
    throw InputError(*path_ + ": " + (place_.empty() ? "" : place_ + ": ") + complaint);
}

JsonDocument::JsonDocument(const std::string& path) : JsonDocument(path, ReadFile(path, MAX_JSON_BYTES)) {}

JsonDocument::JsonDocument(const std::string& name, const std::string& text) : path_(name), value_(Parse(name, text)) {}

GTokenInfo ReadGTokenInfo(const JsonNode& node)
{
    node.AllowOnly({"bundleName", "fingerprint", "versionCode", "policies"});
    GTokenInfo info;
    info.bundleName = node["bundleName"].Text();
    info.fingerprint = node["fingerprint"].Text();
    info.versionCode = node["versionCode"].Integer();
    for (const auto& [name, value] : node["policies"].Members()) {
        GTokenPolicy policy;
        policy.policyName = name;
        policy.policyValue = value.Integer();
        info.policies.push_back(policy);
    }
    return info;
}

}  // namespace SecurityPrivacyTools
