// SIDs as bytes and as text, from hostile hands too.
#include "tests/win32/fixture.h"
#include "win32/security/sid.h"

using win32::SID_VALUE;

namespace {

TEST(Sids, AreTheSameAsBytesAndText) {
    const std::pair<const char*, std::string> cases[] = {
        {"S-1-5-21-1-2-4294967295", {"\1\4\0\0\0\0\0\5\x15\0\0\0\1\0\0\0\2\0\0\0\xFF\xFF\xFF\xFF", 24}},
        {"S-1-0", {"\1\0\0\0\0\0\0\0", 8}},
        {"S-1-4294967295", {"\1\0\0\0\xFF\xFF\xFF\xFF", 8}},
        {"S-1-0x0123456789AB-1", {"\1\1\1\x23\x45\x67\x89\xAB\1\0\0\0", 12}},
    };
    for (const auto& [text, bytes] : cases) {
        ASSERT_TRUE(SID_VALUE::FromText(text)) << text;
        EXPECT_EQ(bytes, SID_VALUE::FromText(text)->Bytes()) << text;
        ASSERT_TRUE(SID_VALUE::FromBytes(bytes)) << text;
        EXPECT_EQ(text, SID_VALUE::FromBytes(bytes)->Text());
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes + '\0')) << text;
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes.substr(1))) << text;
    }
    for (const char* text : {"", "S-1-", "S-2-5-1", "S-1-5-", "S-1-5-x", "S-1-5--1", "S-1-5-4294967296", "S-1-5 -1",
                             "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "S-1-4294967296", "S-1-0x12", "S-1-0x"})
        EXPECT_FALSE(SID_VALUE::FromText(text)) << text;
}

}  // namespace
