#pragma once

#include "qv/Bytes.h"

#include <string>

/// hex("02 05 00") are three bytes.
inline qv::Bytes hex(const std::string& text)
{
    qv::Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return bytes;
}
