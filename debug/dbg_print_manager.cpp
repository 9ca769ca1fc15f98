/*
 * The print-mask singleton: configuration at first use, mask and zone operations, dump flag.
 */
#include <android/log.h>
#include <cutils/properties.h>
#include <sys/stat.h>

#include <cerrno>

#include "debug/zel_debug.h"

namespace zel {
namespace debug {

namespace {

constexpr uint64_t kDefaultMask = 0x3;  // ERR and WAR
constexpr DbgPartition kMaxZone = ZONE_LAST;

// Creates the dump directory when the dump zone is on; true if it exists afterwards.
bool MakeDumpDirectory(uint64_t mask) {
    if ((mask & (1ULL << ZONE_DUMP)) == 0) return false;
    return mkdir(kZelDumpDir, 0774) == 0 || errno == EEXIST;
}

}  // namespace

std::unique_ptr<DbgPrintManager> DbgPrintManager::_instance;
std::mutex DbgPrintManager::_mutex;

DbgPrintManager::DbgPrintManager()
    : default_mask(kDefaultMask),
      print_mask(kDefaultMask),
      property_key("vendor.property.for.talorn.nn"),
      env_name("VRT_LOG_LEVEL"),
      dump_available(false) {
    init();
    dump_available = MakeDumpDirectory(print_mask);
}

DbgPrintManager* DbgPrintManager::GetInstance() {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_instance) _instance.reset(new DbgPrintManager());
    return _instance.get();
}

void DbgPrintManager::init() {
    uint64_t level = 0;
    if (util::get_environment_variable_u64(env_name, &level) != 0) {
        // No usable level in the environment: the property holds the mask itself.
        int64_t mask = property_get_int64(property_key, -1);
        print_mask = mask < 0 ? default_mask : static_cast<uint64_t>(mask);
    } else {
        auto it = kDebugLevelMask.find(static_cast<DebugLevel>(static_cast<int32_t>(level)));
        if (it != kDebugLevelMask.end()) print_mask = it->second;
    }

    zone_table[ZONE_ERR] = DebugPartitionInfo(ANDROID_LOG_ERROR, "ERR");
    zone_table[ZONE_WAR] = DebugPartitionInfo(ANDROID_LOG_WARN, "WAR");
    zone_table[ZONE_INF] = DebugPartitionInfo(ANDROID_LOG_INFO, "INF");
    zone_table[ZONE_DBG] = DebugPartitionInfo(ANDROID_LOG_DEBUG, "DBG");
    zone_table[ZONE_TST] = DebugPartitionInfo(ANDROID_LOG_DEBUG, "TST");
    zone_table[ZONE_MEM] = DebugPartitionInfo(ANDROID_LOG_DEBUG, "MEM");
    zone_table[ZONE_USR] = DebugPartitionInfo(ANDROID_LOG_DEBUG, "USR");
    zone_table[ZONE_DBGR] = DebugPartitionInfo(ANDROID_LOG_DEBUG, "DBGr");
}

void DbgPrintManager::set_mask(unsigned long mask) {
    print_mask = mask;
}

uint64_t& DbgPrintManager::get_print_mask() {
    return print_mask;
}

std::map<DbgPartition, DebugPartitionInfo>& DbgPrintManager::get_debug_zone_info() {
    return zone_table;
}

ZelReturn DbgPrintManager::zel_set_debug_zone(DbgPartition zone) {
    if (zone > kMaxZone) return 3;
    print_mask |= 1ULL << zone;
    return 0;
}

ZelReturn DbgPrintManager::zel_clr_debug_zone(DbgPartition zone) {
    if (zone > kMaxZone) return 3;
    // The complement is 32 bits wide on purpose: it also clears bits 32..63.
    print_mask &= static_cast<uint32_t>(~(1U << zone));
    return 0;
}

void DbgPrintManager::set_dump_available() {
    dump_available = false;
    dump_available = MakeDumpDirectory(print_mask);
}

ZelReturn zel_set_debug_zone(DbgPartition zone) {
    return DbgPrintManager::GetInstance()->zel_set_debug_zone(zone);
}

ZelReturn zel_clr_debug_zone(DbgPartition zone) {
    return DbgPrintManager::GetInstance()->zel_clr_debug_zone(zone);
}

void set_dump_available() {
    DbgPrintManager::GetInstance()->set_dump_available();
}

bool check_print_mask(DbgPartition zone, DbgPrintOption option) {
    DbgPrintManager* manager = DbgPrintManager::GetInstance();
    if (option == PRINT_ALWAYS) return true;
    // The bit is formed in 32 bits: zones wrap at 32 and bits 32..63 are never tested.
    const uint32_t bit = 1U << (zone % 32);
    return (manager->print_mask & bit) != 0;
}

}  // namespace debug
}  // namespace zel
