/*
 * Constants that every source unit including the debug header holds its own copy of: the two
 * real-time signal numbers reserved for the runtime, the verbosity-level masks, the dump
 * directory and the table of supported SoCs.
 */
#pragma once

#include <signal.h>

#include <cstdint>
#include <map>
#include <string>

namespace zel {
namespace debug {

// Reserved for the runtime's own use; nothing in this library sends or handles them.
static const int ZEL_SIGNAL_RT11 = SIGRTMIN + 11;
static const int ZEL_SIGNAL_RT12 = SIGRTMIN + 12;

// Verbosity level of "VRT_LOG_LEVEL".
enum DebugLevel : int32_t {
    LEVEL_ERR = 1,
    LEVEL_WAR = 2,
    LEVEL_INF = 3,
    LEVEL_DBG = 4,
    LEVEL_ALL = 5,
};

static const std::map<DebugLevel, uint64_t> kDebugLevelMask = {
        {LEVEL_ERR, 0x1}, {LEVEL_WAR, 0x3}, {LEVEL_INF, 0x7}, {LEVEL_DBG, 0xF}, {LEVEL_ALL, 0xFF},
};

// Where memory and model dumps go when the dump zone is on. Created with mode 0774.
static const char kZelDumpDir[] = "/data/vendor/zel/dump/";

}  // namespace debug

namespace util {

// Two hardware figures of a supported chip.
struct HwInfo {
    uint32_t first_figure;
    uint32_t second_figure;
};

// Hardware name kept whole by SoC identification (and a key of the table).
static const char kSocNameLinux[] = "linux";

// Supported chips by key: a model number taken from "ro.hardware", or a whole hardware name.
static const std::map<std::string, HwInfo> kSocTable = {
        {"4410", {1, 0}}, {"4420", {2, 1}}, {"4430", {2, 1}},       {"4440", {1, 0}},
        {"4450", {2, 1}}, {"4460", {3, 4}}, {"marlowcar9", {1, 1}}, {kSocNameLinux, {1, 1}},
};

}  // namespace util
}  // namespace zel
