// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "bench/records.h"

// The codec that a careful engineer writes in an afternoon: numbers as they are, texts and lists behind their 32-bit
// length, a writer that appends to a string and a reader that never leaves the message.
namespace bench::plain {

class Writer {
public:
    // A message begins with its length in all, which `Finish` fills in. The buffer keeps its memory between messages.
    void Begin() { buffer_.assign(sizeof(uint32_t), '\0'); }
    std::string_view Finish()
    {
        const auto length = static_cast<uint32_t>(buffer_.size());
        std::memcpy(buffer_.data(), &length, sizeof(length));
        return buffer_;
    }

    template <class Number>
    void Put(Number number)
    {
        static_assert(std::is_arithmetic_v<Number>);
        buffer_.append(reinterpret_cast<const char*>(&number), sizeof(number));
    }
    void PutSize(size_t size) { Put(static_cast<uint32_t>(size)); }
    void PutText(const std::string& text)
    {
        PutSize(text.size());
        buffer_.append(text);
    }
    template <class Texts>
    void PutTexts(const Texts& texts)
    {
        PutSize(texts.size());
        for (const std::string& text : texts) {
            PutText(text);
        }
    }

private:
    std::string buffer_;
};

class Reader {
public:
    // `message` with its length.
    explicit Reader(std::string_view message) : left_(message.substr(sizeof(uint32_t))) {}

    template <class Number>
    void Get(Number& number)
    {
        std::memcpy(&number, Take(sizeof(number)), sizeof(number));
    }
    void GetText(std::string& text)
    {
        uint32_t size = 0;
        Get(size);
        text.assign(Take(size), size);
    }
    // A count of elements that take at least `least` bytes each: no more than can be there.
    uint32_t GetCount(size_t least)
    {
        uint32_t count = 0;
        Get(count);
        if (count > left_.size() / least) {
            throw std::runtime_error("the message is too short");
        }
        return count;
    }
    void GetTexts(std::vector<std::string>& texts)
    {
        texts.resize(GetCount(sizeof(uint32_t)));
        for (std::string& text : texts) {
            GetText(text);
        }
    }
    void GetTexts(std::unordered_set<std::string>& texts)
    {
        for (uint32_t count = GetCount(sizeof(uint32_t)); count > 0; --count) {
            std::string text;
            GetText(text);
            texts.insert(std::move(text));
        }
    }

private:
    const char* Take(size_t bytes)
    {
        if (bytes > left_.size()) {
            throw std::runtime_error("the message is too short");
        }
        const char* taken = left_.data();
        left_.remove_prefix(bytes);
        return taken;
    }

    std::string_view left_;
};

inline void Put(Writer& writer, const Info& info)
{
    writer.PutText(info.bundleName);
    writer.Put(info.uid);
    writer.PutText(info.permissionGroup);
    writer.PutText(info.checkedState);
    writer.PutTexts(info.shownStates);
    writer.PutTexts(info.disabledStates);
    writer.PutText(info.disabledReason);
    writer.Put(info.flags);
}

inline void Get(Reader& reader, Info& info)
{
    reader.GetText(info.bundleName);
    reader.Get(info.uid);
    reader.GetText(info.permissionGroup);
    reader.GetText(info.checkedState);
    reader.GetTexts(info.shownStates);
    reader.GetTexts(info.disabledStates);
    reader.GetText(info.disabledReason);
    reader.Get(info.flags);
}

inline void Put(Writer& writer, const Usage& usage)
{
    writer.PutText(usage.bundleName);
    writer.Put(usage.uid);
    writer.PutText(usage.operationGroup);
    writer.Put(usage.times);
    writer.Put(usage.operationMode);
    writer.Put(usage.appState);
    writer.Put(usage.screenState);
    writer.Put(usage.beginTimestamp);
    writer.Put(usage.endTimestamp);
}

inline void Get(Reader& reader, Usage& usage)
{
    reader.GetText(usage.bundleName);
    reader.Get(usage.uid);
    reader.GetText(usage.operationGroup);
    reader.Get(usage.times);
    reader.Get(usage.operationMode);
    reader.Get(usage.appState);
    reader.Get(usage.screenState);
    reader.Get(usage.beginTimestamp);
    reader.Get(usage.endTimestamp);
}

inline void Put(Writer& writer, const Row& row)
{
    writer.PutText(row.bundleName);
    writer.PutText(row.fingerprint);
    writer.Put(row.versionCode);
    writer.Put(row.policyValue);
}

inline void Get(Reader& reader, Row& row)
{
    reader.GetText(row.bundleName);
    reader.GetText(row.fingerprint);
    reader.Get(row.versionCode);
    reader.Get(row.policyValue);
}

inline void Put(Writer& writer, const InfoRequest& request)
{
    writer.PutText(request.name);
    writer.Put(request.userId);
    writer.PutTexts(request.interested);
}

inline void Get(Reader& reader, InfoRequest& request)
{
    reader.GetText(request.name);
    reader.Get(request.userId);
    reader.GetTexts(request.interested);
}

inline void Put(Writer& writer, const SetRequest& request)
{
    writer.PutText(request.bundleName);
    writer.Put(request.uid);
    writer.PutText(request.permissionGroup);
    writer.PutText(request.checkedState);
    writer.Put(request.flagsMask);
    writer.Put(request.flagsValue);
}

inline void Get(Reader& reader, SetRequest& request)
{
    reader.GetText(request.bundleName);
    reader.Get(request.uid);
    reader.GetText(request.permissionGroup);
    reader.GetText(request.checkedState);
    reader.Get(request.flagsMask);
    reader.Get(request.flagsValue);
}

inline void Put(Writer& writer, const UsageRequest& request)
{
    writer.PutTexts(request.bundleNames);
    writer.PutSize(request.userIds.size());
    for (const int32_t userId : request.userIds) {
        writer.Put(userId);
    }
    writer.PutTexts(request.operationGroups);
    writer.Put(request.beginTimestamp);
    writer.Put(request.endTimestamp);
    writer.Put(request.limit);
    writer.Put(request.order);
}

inline void Get(Reader& reader, UsageRequest& request)
{
    reader.GetTexts(request.bundleNames);
    request.userIds.resize(reader.GetCount(sizeof(int32_t)));
    for (int32_t& userId : request.userIds) {
        reader.Get(userId);
    }
    reader.GetTexts(request.operationGroups);
    reader.Get(request.beginTimestamp);
    reader.Get(request.endTimestamp);
    reader.Get(request.limit);
    reader.Get(request.order);
}

inline void Put(Writer& writer, const RowRequest& request)
{
    writer.PutText(request.policyName);
    writer.PutTexts(request.bundleNames);
}

inline void Get(Reader& reader, RowRequest& request)
{
    reader.GetText(request.policyName);
    reader.GetTexts(request.bundleNames);
}

template <class Record>
void PutMany(Writer& writer, const std::vector<Record>& records)
{
    writer.PutSize(records.size());
    for (const Record& record : records) {
        Put(writer, record);
    }
}

template <class Record>
void GetMany(Reader& reader, std::vector<Record>& records)
{
    // No record is shorter than its numbers.
    constexpr size_t kShortest = 24;
    records.resize(reader.GetCount(kShortest));
    for (Record& record : records) {
        Get(reader, record);
    }
}

}  // namespace bench::plain
