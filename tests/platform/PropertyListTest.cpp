#include "velmora/platform/PropertyList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/Printers.h"

namespace velmora::testing {
namespace {

using platform::decodeBinaryPropertyList;

// Assembles a binary property list from raw objects, one-byte offsets and references, top object 0.
Data bplist(const std::vector<std::string>& objects) {
    std::string out = "bplist00";
    std::string offsets;
    for (const auto& object : objects) {
        offsets += static_cast<char>(out.size());
        out += object;
    }
    const auto tableOffset = out.size();
    out += offsets;
    out += std::string(6, '\0');
    out += '\x01';  // offset size
    out += '\x01';  // reference size
    const auto bigEndian8 = [&](std::size_t value) {
        for (int shift = 56; shift >= 0; shift -= 8) {
            out += static_cast<char>((value >> shift) & 0xFF);
        }
    };
    bigEndian8(objects.size());
    bigEndian8(0);
    bigEndian8(tableOffset);
    return Data::fromString(out);
}

std::string utf16(std::initializer_list<unsigned> units) {
    std::string out(1, static_cast<char>(0x60 | units.size()));
    for (const unsigned unit : units) {
        out += static_cast<char>(unit >> 8);
        out += static_cast<char>(unit & 0xFF);
    }
    return out;
}

TEST(PropertyListTest, ReadsWhatTheWriterWritesAndWellFormedHandMadeLists) {
    const PropertyValue text = PropertyValue::Dictionary{{"k\u00e9y", "\u00e9t\u00e9 \U0001F600"}};
    EXPECT_EQ(decodeBinaryPropertyList(platform::encodeBinaryPropertyList(text)), text);

    EXPECT_EQ(decodeBinaryPropertyList(bplist({utf16({0x00E9, 0xD83D, 0xDE00})})),
              PropertyValue("\u00e9\U0001F600"));
    EXPECT_EQ(decodeBinaryPropertyList(bplist({"\xA2\x01\x01", "\x10\x07"})),
              PropertyValue(PropertyValue::Array{7, 7}))
        << "a shared object referenced twice is not a cycle";
    EXPECT_EQ(decodeBinaryPropertyList(bplist({std::string("\x13\xff\xff\xff\xff\xff\xff\xff\xfe", 9)})),
              PropertyValue(std::int64_t{-2}));
}

TEST(PropertyListTest, MalformedListsAreRefusedInsteadOfCrashingOrLooping) {
    std::vector<std::string> laughs;
    for (int level = 0; level < 60; ++level) {
        laughs.push_back(std::string("\xA2") + static_cast<char>(level + 1) + static_cast<char>(level + 1));
    }
    laughs.push_back("\x09");

    const std::pair<const char*, Data> broken[] = {
        {"array containing itself", bplist({std::string("\xA1\x00", 2)})},
        {"dictionary whose value is itself", bplist({std::string("\xD1\x01\x00", 3), "\x51k"})},
        {"2^60 nodes through shared references", bplist(laughs)},
        {"NUL in an ASCII string", bplist({std::string("\x53"
                                                       "a\0b",
                                                       4)})},
        {"NUL in a UTF-16 string", bplist({utf16({0x0061, 0x0000})})},
        {"lone high surrogate", bplist({utf16({0xD83D})})},
        {"lone low surrogate", bplist({utf16({0xDE00, 0x0061})})},
        {"byte above ASCII in an ASCII string", bplist({"\x51\xe9"})},
        {"non-string dictionary key", bplist({"\xD1\x01\x01", "\x10\x01"})},
        {"reference past the table", bplist({"\xA1\x05"})},
        {"string running past the table", bplist({"\x5F\x10\x7F"
                                                  "abc"})},
        {"set", bplist({"\xC1\x01", "\x09"})},
        {"bad magic", Data::fromString("bplist01" + std::string(40, '\0'))},
        {"too short for a trailer", Data::fromString("bplist00")},
    };
    for (const auto& [what, bytes] : broken) {
        EXPECT_EQ(decodeBinaryPropertyList(bytes), std::nullopt) << what;
    }
}

}  // namespace
}  // namespace velmora::testing
