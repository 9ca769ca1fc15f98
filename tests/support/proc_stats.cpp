#include "support/proc_stats.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace zel_test {

int CountOpenFds() {
    std::error_code error;
    std::filesystem::directory_iterator entries("/proc/self/fd", error);
    return error ? -1 : static_cast<int>(std::distance(begin(entries), end(entries))) - 1;
}

int CountMemfdMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/memfd:") != std::string::npos;
    return count;
}

}  // namespace zel_test
