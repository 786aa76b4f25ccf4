// SPDX-License-Identifier: Apache-2.0
#include "common/json_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;

// More than any device's data; a wrong path must not take all memory.
constexpr size_t MAX_JSON_BYTES = size_t{256} * 1024 * 1024;

}  // namespace

std::string ReadFile(const std::string& path, size_t maxBytes)
{
    std::ifstream file(path, std::ios::binary);
    std::string text;
    for (char byte = 0; file.get(byte); text += byte) {
        if (text.size() == maxBytes) {
            throw InputError(path + ": is longer than the " + std::to_string(maxBytes) + " bytes allowed");
        }
    }
    if (!file.is_open() || file.bad()) {
        throw InputError(path + ": cannot read: " + std::strerror(errno));
    }
    return text;
}

void JsonNode::Expect(bool isMet, const char* what) const
{
    if (!isMet) {
        Fail(std::string("expected ") + what);
    }
}

std::string JsonNode::Text() const
{
    Expect(value_->is_string(), "a string");
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

JsonNode JsonNode::Member(const nlohmann::json& member, const std::string& key) const
{
    return JsonNode({value_, &member}, file_, place_.empty() ? key : place_ + "." + key);
}

std::vector<JsonNode> JsonNode::Items() const
{
    Expect(value_->is_array(), "a list");
    std::vector<JsonNode> items;
    items.reserve(value_->size());
    for (const nlohmann::json& item : *value_) {
        items.push_back(JsonNode({value_, &item}, file_, place_ + "[" + std::to_string(items.size()) + "]"));
    }
    return items;
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Members() const
{
    Expect(value_->is_object(), "an object");
    std::vector<std::pair<std::string, JsonNode>> members;
    for (const auto& [key, value] : value_->items()) {
        members.emplace_back(key, Member(value, key));
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
    Expect(value_->is_object(), "an object");
    const auto member = value_->find(key);
    return member != value_->end() ? std::optional(Member(*member, key)) : std::nullopt;
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
    if (!value_->is_object() || value_->value("format", nlohmann::json()) != format) {
        Fail(std::string("is another kind of file: \"format\" is not \"") + format + "\"");
    }
    const int32_t foundVersion = (*this)["version"].Int32();
    if (foundVersion != version) {
        Fail("has version " + std::to_string(foundVersion) + ", only " + std::to_string(version) + " is understood");
    }
}

void JsonNode::Fail(const std::string& complaint) const
{
    throw InputError(file_ + ": " + (place_.empty() ? "" : place_ + ": ") + complaint);
}

JsonNode ReadJson(const std::string& path)
{
    return ParseJson(path, ReadFile(path, MAX_JSON_BYTES));
}

JsonNode ParseJson(const std::string& name, const std::string& text)
{
    try {
        return JsonNode(std::make_shared<nlohmann::json>(nlohmann::json::parse(text)), name, "");
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
        GTokenPolicy& policy = info.policies.emplace_back();
        policy.policyName = name;
        policy.policyValue = value.Integer();
    }
    return info;
}

}  // namespace SecurityPrivacyTools
