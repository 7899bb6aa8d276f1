// Requests as clients send them, put together field by field.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using BYTES = std::vector<uint8_t>;

inline void Add(BYTES& bytes, uint64_t value, int size) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

inline void AddText(BYTES& bytes, const std::u16string& text) {
    Add(bytes, text.size() & 0xFFFF, 2);
    for (const char16_t unit : text) {
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
}

struct REQUEST_BYTES {
    uint32_t id = 2;
    uint32_t mask = 0x0E06;
    BYTES address = {10, 0, 0, 5};
    std::vector<std::u16string> texts;  // of the blocks that the mask names
    uint16_t groupCount = 0;
    std::vector<std::pair<std::u16string, std::u16string>> groups;
    uint8_t kind = 0x20;

    BYTES Get() const {
        BYTES bytes;
        Add(bytes, 0, 2);
        Add(bytes, 3, 2);
        Add(bytes, 0x10, 2);
        Add(bytes, id, 4);
        Add(bytes, mask, 4);
        Add(bytes, 0x0200000001, 5);
        Add(bytes, address.empty() ? 0 : address.size() == 4 ? 4 : 6, 1);
        bytes.insert(bytes.end(), address.begin(), address.end());
        Add(bytes, 0x13010205, 4);
        Add(bytes, 0x0C0A00, 3);
        for (const std::u16string& text : texts) AddText(bytes, text);
        Add(bytes, groupCount, 2);
        if (groupCount != 0) Add(bytes, 0, 1);
        for (const auto& [domain, dn] : groups) {
            AddText(bytes, domain);
            AddText(bytes, dn);
        }
        Add(bytes, kind, 1);
        bytes[0] = static_cast<uint8_t>(bytes.size() >> 8);
        bytes[1] = static_cast<uint8_t>(bytes.size());
        return bytes;
    }
};

inline REQUEST_BYTES FullRequest() {
    REQUEST_BYTES request;
    request.mask = 0x0FFE;
    request.texts = {u"CORP\\WS1", u"CN=WS1", u"OU=Desks", u"CORP\\jdoe", u"CN=J Doe", u"OU=People"};
    request.groupCount = 2;
    request.groups = {{u"CORP\\Staff", u"CN=Staff"}, {u"CORP\\All", u"CN=All"}};
    return request;
}
