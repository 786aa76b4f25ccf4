// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace VARN::Host {

// How many bytes of `text`, which is not empty, are one character that a terminal only shows; 0 for anything else: what
// it would obey (control characters, U+0080 to U+009F among them), what turns or breaks the line around it (U+061C,
// U+200E, U+200F, U+2028 to U+202E, U+2066 to U+206F), and what is not UTF-8.
inline size_t ShownLength(std::string_view text) noexcept
{
    const auto byteAt = [text](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const uint32_t lead = byteAt(0);
    if (lead < 0x80) {
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    }
    const size_t length = lead >= 0xf0 ? 4 : (lead >= 0xe0 ? 3 : 2);
    uint32_t code = lead & (0xffU >> (length + 1));
    for (size_t at = 1; at < length; ++at) {
        if ((byteAt(at) & 0xc0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (byteAt(at) & 0x3fU);
    }
    // The least that needs so many bytes, but beyond U+009F. A lead byte below 0xc2 or above 0xf4 fails here too.
    constexpr uint32_t LEAST[] = {0, 0, 0xa0, 0x800, 0x10000};
    const auto isWithin = [code](uint32_t first, uint32_t last) { return code >= first && code <= last; };
    const bool isForbidden = lead < 0xc2 || lead > 0xf4 || code < LEAST[length] || code > 0x10ffff ||
                             isWithin(0xd800, 0xdfff) || code == 0x61c || isWithin(0x200e, 0x200f) ||
                             isWithin(0x2028, 0x202e) || isWithin(0x2066, 0x206f);
    return isForbidden ? 0 : length;
}

// `text` with every byte that a terminal must not see as "\x" and two digits, a line feed as "\n". For whatever comes
// from outside (names, paths, files) and goes to a terminal or a line of a log.
inline std::string VisibleText(std::string_view text)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string visible;
    visible.reserve(text.size());
    size_t at = 0;
    while (at < text.size()) {
        size_t end = at;
        for (size_t length = 1; length != 0 && end < text.size(); end += length) {
            length = ShownLength(text.substr(end, 4));
        }
        visible.append(text, at, end - at);
        at = end;
        if (at < text.size()) {
            const auto byte = static_cast<unsigned char>(text[at++]);
            if (byte == '\n') {
                visible += "\\n";
            } else {
                visible.append({'\\', 'x', DIGITS[byte >> 4U], DIGITS[byte & 0xfU]});
            }
        }
    }
    return visible;
}

}  // namespace VARN::Host
