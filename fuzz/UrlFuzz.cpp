// Any address, pattern and replacement through the rewriting of the visualisation's address. The three come behind one
// another, separated by zero bytes.

#include "core/Vorlan.h"
#include "fuzz/Check.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

namespace {

std::string nextText(const std::uint8_t*& data, const std::uint8_t* end)
{
    const auto* stop = std::find(data, end, 0);
    std::string text(data, stop);
    data = stop == end ? end : stop + 1;
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto* const end = data + size;
    const std::string original = nextText(data, end);
    const std::string pattern = data == end ? "localhost" : nextText(data, end);
    const std::string replacement = nextText(data, end);

    std::string url = original;
    const bool replaced = Vorlan::doWebUrlSubstitution(url, pattern, replacement);
    bool expected = false;
    for (const std::string prefix : {"", "http://", "https://"}) {
        const bool here = original.starts_with(prefix + pattern) && original.find(pattern) == prefix.size();
        if (here)
            check(url == prefix + replacement + original.substr(prefix.size() + pattern.size()),
                  "the host is replaced, and nothing else");
        expected = expected || here;
    }
    check(replaced == expected, "a host is replaced where there is one");
    check(replaced || url == original, "any other address stays as it is");

    std::string trimmed = original;
    Vorlan::lTrim(trimmed);
    check(original.ends_with(trimmed), "only the front is trimmed");
    check(trimmed.empty() || std::isspace(static_cast<unsigned char>(trimmed[0])) == 0,
          "no white space is left in front");
    return 0;
}
