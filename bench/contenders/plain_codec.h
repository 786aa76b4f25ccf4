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

    // A number, a text, a record or a list of them.
    template <class T>
    void Put(const T& value)
    {
        if constexpr (std::is_arithmetic_v<T>) {
            buffer_.append(reinterpret_cast<const char*>(&value), sizeof(value));
        } else if constexpr (std::is_same_v<T, std::string>) {
            Put(static_cast<uint32_t>(value.size()));
            buffer_.append(value);
        } else if constexpr (kHasFields<T>) {
            std::apply([this](const auto&... fields) { (this->Put(fields), ...); }, T::Fields(value));
        } else {
            Put(static_cast<uint32_t>(value.size()));
            for (const auto& element : value) {
                Put(element);
            }
        }
    }

private:
    std::string buffer_;
};

class Reader {
public:
    // `message` with its length.
    explicit Reader(std::string_view message) : left_(message.substr(sizeof(uint32_t))) {}

    template <class T>
    void Get(T& value)
    {
        if constexpr (std::is_arithmetic_v<T>) {
            std::memcpy(&value, Take(sizeof(value)), sizeof(value));
        } else if constexpr (std::is_same_v<T, std::string>) {
            uint32_t size = 0;
            Get(size);
            value.assign(Take(size), size);
        } else {
            std::apply([this](auto&... fields) { (this->Get(fields), ...); }, T::Fields(value));
        }
    }
    template <class T>
    void Get(std::vector<T>& list)
    {
        list.resize(GetCount(kHasFields<T> ? kShortestRecord : sizeof(uint32_t)));
        for (T& element : list) {
            Get(element);
        }
    }
    void Get(std::unordered_set<std::string>& texts)
    {
        for (uint32_t count = GetCount(sizeof(uint32_t)); count > 0; --count) {
            std::string text;
            Get(text);
            texts.insert(std::move(text));
        }
    }

private:
    // No record is shorter than its numbers.
    static constexpr size_t kShortestRecord = 24;

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

}  // namespace bench::plain
