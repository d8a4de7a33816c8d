#include "qv/List.h"

#include "protocol/Wire.h"
#include "qv/Values.h"

#include <cstdio>
#include <ostream>

namespace qv {

namespace {

void writeFieldRow(std::ostream& out, const wire::tField& field, const std::string& number, const char* indent)
{
    char text[128];
    std::snprintf(text, sizeof text, "%s%-4s%-22s%-16s%-6s", indent, number.c_str(), field.name, typeName(field.type),
                  field.unit);
    out << text << field.meaning << '\n';
}

std::string fieldJson(const wire::tField& field)
{
    return R"({"name":)" + jsonString(field.name) + R"(,"type":)" + jsonString(typeName(field.type)) + R"(,"unit":)" +
           jsonString(field.unit) + R"(,"meaning":)" + jsonString(field.meaning) + "}";
}

void writeRegistersJson(std::ostream& out, std::span<const wire::tRegister> table)
{
    const char* comma = "";
    for (const auto& reg : table) {
        out << comma << R"({"address":)" << unsigned{reg.address} << R"(,"enumerator":)" << jsonString(reg.enumerator)
            << R"(,"value":)" << fieldJson(reg.value) << "}";
        comma = ",";
    }
}

void writeListJson(std::ostream& out)
{
    out << R"({"read":[)";
    writeRegistersJson(out, wire::kReadRegisters);
    out << R"(],"write":[)";
    writeRegistersJson(out, wire::kWriteRegisters);
    out << R"(],"methods":[)";
    const char* comma = "";
    for (const auto& method : wire::kMethods) {
        out << comma << R"({"id":)" << unsigned{method.id} << R"(,"name":)" << jsonString(method.name)
            << R"(,"meaning":)" << jsonString(method.meaning) << R"(,"args":[)";
        const char* between = "";
        for (const auto& field : method.args) {
            out << between << fieldJson(field);
            between = ",";
        }
        out << "]}";
        comma = ",";
    }
    out << "]}\n";
}

} // namespace

void writeList(std::ostream& out, bool json)
{
    if (json) {
        writeListJson(out);
        return;
    }
    out << "Registers to read\n";
    for (const auto& reg : wire::kReadRegisters) {
        writeFieldRow(out, reg.value, std::to_string(reg.address), "  ");
    }
    out << "\nRegisters to write\n";
    for (const auto& reg : wire::kWriteRegisters) {
        writeFieldRow(out, reg.value, std::to_string(reg.address), "  ");
    }
    out << "\nMethods to call, with their arguments\n";
    for (const auto& method : wire::kMethods) {
        char text[64];
        std::snprintf(text, sizeof text, "  %-4u%-22s", unsigned{method.id}, method.name);
        out << text << method.meaning << '\n';
        for (const auto& field : method.args) {
            writeFieldRow(out, field, "", "    ");
        }
    }
}

} // namespace qv
