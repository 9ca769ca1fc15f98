/*
 * Stream-style log messages.
 */
#include <stdexcept>

#include "debug/zel_debug.h"

namespace zel {
namespace debug {

ZelMsgHandler::ZelMsgHandler(const char* function, int line, DbgPartition zone)
    : zone(zone), function(function), line(line) {
    try {
        stream = std::make_shared<std::stringstream>();
    } catch (const std::exception&) {
        if (print_mask_allows(ZONE_ERR, PRINT_IF_ON)) {
            zel_print_log(nullptr, ZONE_ERR, function, line, "Exception from construction\n");
        }
    }
}

ZelMsgHandler::~ZelMsgHandler() = default;

ZelMsgHandler& ZelMsgHandler::operator<<(std::ostream& (* /*manipulator*/)(std::ostream&)) {
    if (print_mask_allows(zone, PRINT_IF_ON)) {
        zel_print_log(nullptr, zone, function, line, "  %s\n", c_str());
    }
    return *this;
}

const char* ZelMsgHandler::c_str() const {
    try {
        text = stream ? stream->str() : std::string();
    } catch (const std::length_error&) {
        return "string_length_error";
    }
    return text.c_str();
}

}  // namespace debug
}  // namespace zel
