#include "MarkdownTable.h"
#include "dbus/SDBusManagerTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using markdown::Row;
using testing::ElementsAreArray;

TEST(BusDoc, ListsTheMembersOfTheObjectInTheirOrder)
{
    std::vector<Row> expected;
    for (const sd_bus_vtable* entry = kVorlanTable + 1; entry->type != _SD_BUS_VTABLE_END; ++entry) {
        if (entry->type == _SD_BUS_VTABLE_PROPERTY)
            expected.push_back({entry->x.property.member, "property", entry->x.property.signature});
        else if (entry->type == _SD_BUS_VTABLE_METHOD)
            expected.push_back({entry->x.method.member, "method", entry->x.method.signature});
        else if (entry->type == _SD_BUS_VTABLE_SIGNAL)
            expected.push_back({entry->x.signal.member, "signal", entry->x.signal.signature});
    }
    auto rows = markdown::table("bus.md", {"member", "kind", "signature", "meaning"});
    for (Row& row : rows)
        row.resize(3);
    EXPECT_THAT(rows, ElementsAreArray(expected));
}

} // namespace
