// Host platform layer: system properties over libbase's store (its dmabuf heaps: memory_test).
#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(PlatformTest, PropertiesReadWhatLibbaseSetAndParseWholeIntegers) {
    char value[PROPERTY_VALUE_MAX];
    const auto get = [&](const char* key, const char* fallback) {
        return std::to_string(property_get(key, value, fallback)) + ":" + value;
    };
    EXPECT_EQ("0:", get("test.zel.unset", nullptr));
    ASSERT_TRUE(android::base::SetProperty("test.zel.text", "ab4420"));
    EXPECT_EQ("6:ab4420", get("test.zel.text", "default"));
    ASSERT_EQ(0, property_set("test.zel.text", ""));
    EXPECT_EQ("7:default", get("test.zel.text", "default"));
    ASSERT_EQ(0, property_set("test.zel.long", std::string(200, 'x').c_str()));
    EXPECT_EQ("91:" + std::string(PROPERTY_VALUE_MAX - 1, 'x'), get("test.zel.long", nullptr));
    EXPECT_EQ(-1, property_set(nullptr, "x"));

    // Integers as strtoll with base 0 reads them: the whole text, else the default.
    const char* texts[] = {"0x100007", "255", "010", "-5", "", "12abc", "99999999999999999999"};
    const int64_t values[] = {0x100007, 255, 8, -5, -1, -1, -1};
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(values[i],
                  property_set("test.zel.int", texts[i]) + property_get_int64("test.zel.int", -1))
                << texts[i];
    EXPECT_EQ(42, property_get_int64("test.zel.never.set", 42));
    EXPECT_EQ(42, property_get_int64(nullptr, 42));
}

}  // namespace
