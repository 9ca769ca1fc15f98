// Host platform layer: system properties over libbase's store (its dmabuf heaps: memory_test).
#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(PlatformTest, PropertiesReadWhatLibbaseSetAndParseWholeIntegers) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_get("test.zel.unset", value, nullptr));
    EXPECT_STREQ("", value);
    ASSERT_TRUE(android::base::SetProperty("test.zel.text", "ab4420"));
    EXPECT_EQ(6, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("ab4420", value);
    ASSERT_EQ(0, property_set("test.zel.text", ""));
    EXPECT_EQ(7, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("default", value);
    ASSERT_EQ(0, property_set("test.zel.long", std::string(200, 'x').c_str()));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, property_get("test.zel.long", value, nullptr));
    EXPECT_EQ(std::string(PROPERTY_VALUE_MAX - 1, 'x'), value);
    EXPECT_EQ(-1, property_set(nullptr, "x"));

    // Integers as strtoll with base 0 reads them: the whole text, else the default.
    const char* texts[] = {"0x100007", "255", "010", "-5", "", "12abc", "99999999999999999999"};
    const int64_t values[] = {0x100007, 255, 8, -5, -1, -1, -1};
    for (int i = 0; i < 7; ++i) {
        ASSERT_EQ(0, property_set("test.zel.int", texts[i]));
        EXPECT_EQ(values[i], property_get_int64("test.zel.int", -1)) << texts[i];
    }
    EXPECT_EQ(42, property_get_int64("test.zel.never.set", 42));
    EXPECT_EQ(42, property_get_int64(nullptr, 42));
}

}  // namespace
