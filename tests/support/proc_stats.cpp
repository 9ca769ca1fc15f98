#include "support/proc_stats.h"

#include <dirent.h>

#include <fstream>
#include <string>

namespace zel_test {

int CountOpenFds() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count - 1;
}

int CountMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    std::string line;
    while (std::getline(maps, line))
        ++count;
    return count;
}

}  // namespace zel_test
