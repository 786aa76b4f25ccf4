// SPDX-License-Identifier: Apache-2.0
#include "common/json_input.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;

// More than any device's data; a wrong path must not take all memory.
constexpr size_t MAX_JSON_BYTES = size_t{256} * 1024 * 1024;

[[noreturn]] void FailToRead(const std::string& path, int error)
{
    throw InputError(path + ": cannot read: " + std::strerror(error));
}

std::string MemberPlace(const std::string& place, const std::string& key)
{
    return place.empty() ? key : place + "." + key;
}

}  // namespace

std::string ReadFile(const std::string& path, size_t maxBytes)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        FailToRead(path, errno);
    }
    std::string text;
    std::array<char, 16384> piece;
    do {
        file.read(piece.data(), piece.size());
        text.append(piece.data(), static_cast<size_t>(file.gcount()));
        if (text.size() > maxBytes) {
            throw InputError(path + ": is longer than the " + std::to_string(maxBytes) + " bytes allowed");
        }
    } while (file);
    if (file.bad()) {
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
        items.push_back(JsonNode(file_, item, place_ + "[" + std::to_string(items.size()) + "]"));
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
        members.emplace_back(key, JsonNode(file_, value, MemberPlace(place_, key)));
    }
    return members;
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
    return JsonNode(file_, *member, MemberPlace(place_, key));
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
    throw InputError(file_->name + ": " + (place_.empty() ? "" : place_ + ": ") + complaint);
}

JsonNode ReadJson(const std::string& path)
{
    return ParseJson(path, ReadFile(path, MAX_JSON_BYTES));
}

JsonNode ParseJson(const std::string& name, const std::string& text)
{
    try {
        const auto file = std::make_shared<JsonNode::File>(JsonNode::File{name, nlohmann::json::parse(text)});
        return JsonNode(file, file->contents, "");
    } catch (const nlohmann::json::parse_error& error) {
        // The parser's own message quotes the text around the error, which may be a fingerprint.
        const std::string before = text.substr(0, error.byte > 0 ? error.byte - 1 : 0);
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        const size_t column = before.size() - (before.rfind('\n') + 1) + 1;
        throw InputError(name + ": " + (before.size() == text.size() ? "ends too early" : "is not JSON") + ": line " +
                         std::to_string(line) + ", column " + std::to_string(column));
    }
}

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
