/*
 * Debug logging: the process-wide print mask and zone table, and log emission to the Android log.
 *
 * Every message names a debug zone (DbgPartition) and a print option (DbgPrintOption). A message
 * with option PRINT_ALWAYS always prints; any other option prints only when the zone's bit is set
 * in the print mask. The mask comes from the environment variable "VRT_LOG_LEVEL" (a verbosity
 * level 1..5) or else from the system property "vendor.property.for.talorn.nn" (the mask itself),
 * read once, when the DbgPrintManager singleton is first used.
 *
 * Lines reach liblog as "2.1.17: <message>" under the tag "ZEL_FRAMEWORK". Inside the library, log
 * through the ZEL_LOG and ZEL_MSG macros below: a filtered message costs one mask test and
 * formats nothing.
 */
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "debug/zel_constants.h"

// Status code of most operations: 0 success; 1 failed check or range; 2 not available or I/O
// failure; 3 invalid argument or failed file operation; 4 zone without a table entry; 5 out of
// memory or failed deletion; -1 exception inside zel_print_log.
typedef int32_t ZelReturn;

namespace zel {
namespace debug {

// Debug zone. Zones 0..7 have zone-table entries and can be printed; 20 asks for the dump
// directory; 8..19 and 21 can only be set and cleared in the mask.
enum DbgPartition : uint64_t {
    ZONE_ERR = 0,
    ZONE_WAR = 1,
    ZONE_INF = 2,
    ZONE_DBG = 3,
    ZONE_TST = 4,
    ZONE_MEM = 5,
    ZONE_USR = 6,
    ZONE_DBGR = 7,
    ZONE_DUMP = 20,
    ZONE_LAST = 21,
};

enum DbgPrintOption : uint32_t {
    PRINT_ALWAYS = 0,  // printed whatever the mask holds
    PRINT_IF_ON = 1,   // printed when the zone is on: conditional error reports
    PRINT_TRACE = 2,   // printed when the zone is on: information and debug traces
};

// Android log priority and label of one printable zone. extra1 and extra2 are reserved.
struct DebugPartitionInfo {
    int32_t priority;
    std::string label;
    std::string extra1;
    std::string extra2;

    DebugPartitionInfo(int32_t prio = 0, std::string name = {})
        : priority(prio), label(std::move(name)) {}
};

class DbgPrintManager {
  public:
    uint64_t default_mask;
    uint64_t print_mask;
    std::map<DbgPartition, DebugPartitionInfo> zone_table;
    const char* property_key;
    const char* env_name;
    bool dump_available;

    static std::unique_ptr<DbgPrintManager> _instance;
    static std::mutex _mutex;

    // The singleton, created and configured on first use. Takes _mutex on every call.
    static DbgPrintManager* GetInstance();

    // Reads "VRT_LOG_LEVEL" or the print-mask property and fills the zone table.
    void init();

    // Mask operations. They are plain read-modify-writes, meant for set-up time.
    void set_mask(unsigned long mask);
    uint64_t& get_print_mask();
    std::map<DbgPartition, DebugPartitionInfo>& get_debug_zone_info();
    // Sets bit `zone`; 3 when zone > 21, else 0.
    ZelReturn zel_set_debug_zone(DbgPartition zone);
    // Clears bit `zone` with a 32-bit complement, so bits 32..63 are cleared too; 3 when
    // zone > 21, else 0.
    ZelReturn zel_clr_debug_zone(DbgPartition zone);
    // Re-evaluates the dump flag: true when bit 20 is set and the dump directory exists or was
    // just created.
    void set_dump_available();

  private:
    DbgPrintManager();
};

// Free forms of the zone operations, on the singleton.
ZelReturn zel_set_debug_zone(DbgPartition zone);
ZelReturn zel_clr_debug_zone(DbgPartition zone);
void set_dump_available();

// True if option is PRINT_ALWAYS, else whether bit (zone % 32) of the mask is set.
bool check_print_mask(DbgPartition zone, DbgPrintOption option);

// check_print_mask for the logging macros, inlined into the caller: once the singleton exists, a
// filtered message costs one lock and unlock of its mutex, with the mask tested in between. The
// first call leaves the creation to check_print_mask.
inline bool print_mask_allows(DbgPartition zone, DbgPrintOption option) {
    {
        std::lock_guard<std::mutex> lock(DbgPrintManager::_mutex);
        if (const DbgPrintManager* manager = DbgPrintManager::_instance.get()) {
            // The bit is formed in 32 bits: zones wrap at 32 and bits 32..63 are never tested.
            return option == PRINT_ALWAYS || (manager->print_mask & (1U << (zone % 32))) != 0;
        }
    }
    return check_print_mask(zone, option);
}

// Hands one line to liblog: priority from the zone table, tag `tag` or "ZEL_FRAMEWORK", text
// "2.1.17: " followed by `format` (the whole format cut at 1023 characters) formatted with the
// arguments. `function` and `line` are not printed. Does not consult the mask.
// Returns 0, 4 for a zone without a table entry, -1 on an out-of-range or length error.
ZelReturn zel_print_log(const char* tag, DbgPartition zone, const char* function, int line,
                        const char* format, ...) __attribute__((format(printf, 5, 6)));

// Stream-style message: values are appended with <<, and std::endl prints the text gathered so
// far as "  <text>\n" when the zone is on (the stream is kept, so a second std::endl prints it
// again with anything added since).
class ZelMsgHandler {
  public:
    std::shared_ptr<std::stringstream> stream;
    DbgPartition zone;
    mutable std::string text;
    const char* function;
    int line;

    ZelMsgHandler(const char* function, int line, DbgPartition zone);
    ~ZelMsgHandler();

    template <typename T>
    ZelMsgHandler& operator<<(const T& value) {
        if (stream) *stream << value;
        return *this;
    }
    // Ends the message (the manipulator itself is not applied).
    ZelMsgHandler& operator<<(std::ostream& (*manipulator)(std::ostream&));

    // The text gathered so far, or "string_length_error".
    const char* c_str() const;
};

}  // namespace debug

namespace util {
// Reads environment variable `name` as a decimal number: 2 if unset, 1 if it parses to 0 (also
// for text that does not start with a digit; *value unchanged), else 0 with *value set.
ZelReturn get_environment_variable_u64(const char* name, uint64_t* value);
}  // namespace util

}  // namespace zel

// printf-style log line through the calling pattern: mask test first, then zel_print_log with
// the caller's signature and line.
#define ZEL_LOG(zone, option, ...)                                                                \
    do {                                                                                          \
        if (::zel::debug::print_mask_allows(static_cast<::zel::debug::DbgPartition>(zone),        \
                                            static_cast<::zel::debug::DbgPrintOption>(option))) { \
            ::zel::debug::zel_print_log(nullptr, static_cast<::zel::debug::DbgPartition>(zone),   \
                                        __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__);              \
        }                                                                                         \
    } while (0)

// Stream-style log line: ZEL_MSG(zone) << "Handle is created: " << fd << std::endl;
// When the zone is off nothing after ZEL_MSG(zone) is evaluated.
#define ZEL_MSG(zone)                                                                   \
    if (!::zel::debug::print_mask_allows(static_cast<::zel::debug::DbgPartition>(zone), \
                                         ::zel::debug::PRINT_IF_ON)) {                  \
    } else                                                                              \
        ::zel::debug::ZelMsgHandler(__PRETTY_FUNCTION__, __LINE__,                      \
                                    static_cast<::zel::debug::DbgPartition>(zone))
