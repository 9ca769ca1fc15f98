// `zel-prof config`: shows how the logging frame configured itself in this process.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "debug/zel_debug.h"
#include "zel_prof/commands.h"

namespace zel_prof {

namespace {

void ShowConfig() {
    using zel::debug::DbgPrintManager;
    DbgPrintManager* manager = DbgPrintManager::GetInstance();
    const char* level = getenv(manager->env_name);
    printf("%s: %s\n", manager->env_name, level != nullptr ? level : "(unset)");
    printf("print mask:     0x%" PRIx64 " (default 0x%" PRIx64 ", property \"%s\")\n",
           manager->print_mask, manager->default_mask, manager->property_key);
    printf("dump directory: %s (%s)\n", zel::debug::kZelDumpDir,
           manager->dump_available ? "available" : "off");
    printf("zones:\n");
    for (const auto& [zone, info] : manager->get_debug_zone_info()) {
        const bool on = zel::debug::check_print_mask(zone, zel::debug::PRINT_IF_ON);
        printf("  %2" PRIu64 " %-4s priority %d  %s\n", static_cast<uint64_t>(zone),
               info.label.c_str(), info.priority, on ? "on" : "off");
    }
}

}  // namespace

void AddConfigCommand(CLI::App& app) {
    app.add_subcommand("config", "Show the print mask and zone table read at start-up")
            ->callback(ShowConfig);
}

}  // namespace zel_prof
