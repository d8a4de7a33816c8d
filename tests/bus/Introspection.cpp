#include "tests/bus/Introspection.h"

#include <map>

namespace {

struct tTag
{
    bool opens = false;
    bool closes = false;
    std::string name;
    std::map<std::string, std::string> attributes;

    std::string of(const std::string& attribute) const
    {
        const auto found = attributes.find(attribute);
        return found == attributes.end() ? "" : found->second;
    }
};

std::string withoutComments(std::string xml)
{
    for (std::size_t begin = 0; (begin = xml.find("<!--")) != std::string::npos;) {
        const std::size_t end = xml.find("-->", begin);
        xml.erase(begin, end == std::string::npos ? end : end + 3 - begin);
    }
    return xml;
}

constexpr char kBlank[] = " \t\r\n";

/// name="value" pairs; the text between the tag's name and its end.
std::map<std::string, std::string> attributesOf(const std::string& text)
{
    std::map<std::string, std::string> attributes;
    std::size_t at = 0;
    for (;;) {
        const std::size_t begin = text.find_first_not_of(kBlank, at);
        const std::size_t equals = text.find('=', at);
        const std::size_t quote = text.find_first_of("\"'", equals);
        if (begin == std::string::npos || equals == std::string::npos || quote == std::string::npos)
            return attributes;
        const std::size_t end = text.find(text[quote], quote + 1);
        const std::size_t nameEnd = text.find_first_of(" \t\r\n=", begin);
        attributes[text.substr(begin, nameEnd - begin)] = text.substr(quote + 1, end - quote - 1);
        if (end == std::string::npos)
            return attributes;
        at = end + 1;
    }
}

tTag tagOf(std::string text)
{
    tTag tag;
    tag.opens = text.front() != '/';
    tag.closes = !tag.opens || text.back() == '/';
    if (!tag.opens)
        text.erase(0, 1);
    else if (tag.closes)
        text.pop_back();
    const std::size_t nameEnd = text.find_first_of(kBlank);
    tag.name = text.substr(0, nameEnd);
    if (nameEnd != std::string::npos)
        tag.attributes = attributesOf(text.substr(nameEnd));
    return tag;
}

std::vector<tTag> tagsOf(const std::string& text)
{
    const std::string xml = withoutComments(text);
    std::vector<tTag> tags;
    for (std::size_t begin = 0; (begin = xml.find('<', begin)) != std::string::npos;) {
        const std::size_t end = xml.find('>', begin);
        if (end == std::string::npos || end == begin + 1)
            break;
        if (xml[begin + 1] != '!' && xml[begin + 1] != '?')
            tags.push_back(tagOf(xml.substr(begin + 1, end - begin - 1)));
        begin = end;
    }
    return tags;
}

bool saysTheDefault(const tTag& annotation)
{
    return annotation.of("name") == "org.freedesktop.DBus.Property.EmitsChangedSignal" &&
           annotation.of("value") == "true";
}

std::string memberText(const tTag& tag)
{
    const std::string head = tag.name + " " + tag.of("name");
    return tag.name == "property" ? head + " " + tag.of("type") + " " + tag.of("access") : head;
}

std::string partText(const tTag& part, const std::string& member)
{
    if (part.name == "annotation")
        return saysTheDefault(part) ? "" : " [" + part.of("name") + "=" + part.of("value") + "]";
    if (part.name != "arg")
        return " <" + part.name + ">";
    if (member.rfind("signal", 0) == 0)
        return " " + part.of("type");
    return (part.of("direction") == "out" ? " out:" : " in:") + part.of("type");
}

} // namespace

std::vector<std::string> membersOf(const std::string& xml, const std::string& interface)
{
    std::vector<std::string> members;
    bool inside = false;
    bool inMember = false;
    for (const tTag& tag : tagsOf(xml)) {
        const bool isMember = tag.name == "property" || tag.name == "method" || tag.name == "signal";
        if (tag.name == "interface") {
            inside = tag.opens && tag.of("name") == interface;
        } else if (inside && isMember) {
            if (tag.opens)
                members.push_back(memberText(tag));
            inMember = tag.opens && !tag.closes;
        } else if (inside && inMember && tag.opens) {
            members.back() += partText(tag, members.back());
        } else if (inside && tag.opens) {
            members.push_back(partText(tag, ""));
        }
    }
    return members;
}
