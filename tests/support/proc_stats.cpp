#include "support/proc_stats.h"

#include <dirent.h>

#include <fstream>
#include <string>

namespace zel_test {

int CountOpenFds() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = -3;  // ".", ".." and the listing's own descriptor
    while (readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count;
}

static int CountMaps(const char* containing) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(containing) != std::string::npos;
    return count;
}

int CountMappings() {
    return CountMaps("");
}

int CountMemfdMappings() {
    return CountMaps("/memfd:");
}

}  // namespace zel_test
