// Logging: configure the print mask, log through the two macros, switch zones at run time.
#include <android/log.h>

#include <cstdio>
#include <cstdlib>

#include "debug/zel_debug.h"

using namespace zel::debug;

// Stops the program with status 1 when a result is not the one the page promises.
static void Require(bool ok, const char* what) {
    if (ok) return;
    fprintf(stderr, "unexpected: %s\n", what);
    exit(1);
}

int main() {
    // liblog's own filter comes after the mask; let debug lines through it as well.
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);

    // The mask is read once, on the library's first log call: configure before it. Level 3 turns
    // on ERR, WAR and INF (mask 0x7) and takes precedence over the property.
    setenv("VRT_LOG_LEVEL", "3", 1);
    DbgPrintManager* manager = DbgPrintManager::GetInstance();
    Require(manager->get_print_mask() == 0x7, "level 3 gives mask 0x7");

    // printf-style lines. The arguments are only evaluated when the line prints.
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Loaded model(%s), size(%u)\n", "mobilenet.nnc", 4096u);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Not printed: DBG is off\n");
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Printed whatever the mask holds\n");

    // Stream-style lines: values are gathered with << and printed by std::endl.
    ZEL_MSG(ZONE_WAR) << "Buffers in use: " << 3 << ", largest " << 65536 << std::endl;

    // Zones can be switched at run time (a set-up task: the mask is not locked).
    Require(zel_set_debug_zone(ZONE_DBG) == 0, "DBG switched on");
    Require(check_print_mask(ZONE_DBG, PRINT_TRACE), "DBG traces now print");
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Printed now that DBG is on\n");
    Require(zel_clr_debug_zone(ZONE_INF) == 0, "INF switched off");
    Require(manager->get_print_mask() == 0xB, "ERR, WAR and DBG are left");
    Require(zel_set_debug_zone(static_cast<DbgPartition>(22)) == 3, "zones end at 21");

    // zel_print_log itself does not test the mask; a zone without a table entry gives 4.
    Require(zel_print_log("MY_TAG", ZONE_WAR, __func__, __LINE__, "  Own tag (%d)\n", 1) == 0,
            "line handed to the log");
    Require(zel_print_log(nullptr, static_cast<DbgPartition>(8), __func__, __LINE__, "  x\n") == 4,
            "zone 8 has no table entry");

    // Back to the default: errors and warnings only.
    manager->set_mask(0x3);
    return 0;
}
