#include "tests/bus/Introspection.h"

#include <map>
#include <regex>

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

std::vector<tTag> tagsOf(const std::string& text)
{
    static const std::regex tagPattern(R"(<(/?)(\w+)((?:\s+[\w:]+\s*=\s*(?:"[^"]*"|'[^']*'))*)\s*(/?)>)");
    static const std::regex attributePattern(R"(([\w:]+)\s*=\s*["']([^"']*)["'])");
    const std::string xml = withoutComments(text);
    std::vector<tTag> tags;
    for (std::sregex_iterator it(xml.begin(), xml.end(), tagPattern), end; it != end; ++it) {
        tTag tag{it->str(1).empty(), !it->str(1).empty() || !it->str(4).empty(), it->str(2), {}};
        const std::string attributes = it->str(3);
        for (std::sregex_iterator at(attributes.begin(), attributes.end(), attributePattern); at != end; ++at)
            tag.attributes[at->str(1)] = at->str(2);
        tags.push_back(std::move(tag));
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
