/*
 * libcutils system properties for a Linux host, over libbase's in-process property store.
 *
 * Debian's libcutils leaves these out. The semantics are AOSP's: values are at most
 * PROPERTY_VALUE_MAX - 1 characters, an unset or empty property yields the default, and integers
 * are parsed as strtoll with base 0 does (decimal, 0x hexadecimal, 0 octal), the whole text or
 * nothing: an empty, partly numeric or out-of-range value yields the default.
 */
#include <cutils/properties.h>

#include <android-base/properties.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The value of key, cut to what a property can hold; empty when unset.
std::string ReadProperty(const char* key) {
    if (key == nullptr) return {};
    std::string value = android::base::GetProperty(key, "");
    if (value.size() > PROPERTY_VALUE_MAX - 1) value.resize(PROPERTY_VALUE_MAX - 1);
    return value;
}

bool ParseWhole(const std::string& text, long long* out) {
    if (text.empty()) return false;
    const char* begin = text.c_str();
    char* end = nullptr;
    int saved_errno = errno;
    errno = 0;
    long long value = strtoll(begin, &end, 0);
    bool ok = errno == 0 && end != begin && *end == '\0';
    errno = saved_errno;
    if (ok) *out = value;
    return ok;
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string text = ReadProperty(key);
    if (text.empty() && default_value != nullptr) {
        snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value);
        return static_cast<int>(strlen(value));
    }
    memcpy(value, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    long long parsed = 0;
    return ParseWhole(ReadProperty(key), &parsed) ? static_cast<int64_t>(parsed) : default_value;
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    long long parsed = 0;
    if (!ParseWhole(ReadProperty(key), &parsed) || parsed < INT32_MIN || parsed > INT32_MAX) {
        return default_value;
    }
    return static_cast<int32_t>(parsed);
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
    const std::string text = ReadProperty(key);
    if (text == "1" || text == "true" || text == "y" || text == "yes" || text == "on") return 1;
    if (text == "0" || text == "false" || text == "n" || text == "no" || text == "off") return 0;
    return default_value;
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr || value == nullptr) return -1;
    return android::base::SetProperty(key, value) ? 0 : -1;
}
