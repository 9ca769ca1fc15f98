// Uses the installed library through its umbrella header and checks a few results.
#include <zel_common_utils.h>

#include <cstdio>

int main() {
    using namespace zel::debug;
    DbgPrintManager* manager = DbgPrintManager::GetInstance();
    if (manager->zel_set_debug_zone(ZONE_INF) != 0) return 1;
    if (!check_print_mask(ZONE_INF, PRINT_TRACE)) return 2;
    if (zel_print_log(nullptr, ZONE_INF, __func__, __LINE__, "  consumer(%d)\n", 1) != 0) return 3;
    printf("consumer ok: mask 0x%llx\n", static_cast<unsigned long long>(manager->print_mask));
    return 0;
}
