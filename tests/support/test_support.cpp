// Helpers shared by the test programs.
#include "test_support.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace qvtest {

bool OptIsPrivateTmpfs() {
    // mountinfo: id parent major:minor root mountpoint options [optional...] - fstype source super
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    bool found = false;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string id, parent, dev, root, point;
        fields >> id >> parent >> dev >> root >> point;
        if (point != "/opt") continue;
        std::string word;
        while (fields >> word && word != "-") {
        }
        std::string fstype;
        fields >> fstype;
        found = (fstype == "tmpfs");  // the last mount on /opt is the one in force
    }
    return found;
}

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool FileExists(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::map<int, std::string> Threads() {
    std::map<int, std::string> threads;
    DIR *dir = ::opendir("/proc/self/task");
    while (dirent *e = dir != nullptr ? ::readdir(dir) : nullptr) {
        if (e->d_name[0] == '.') continue;
        std::string comm = ReadFile(std::string("/proc/self/task/") + e->d_name + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        threads[std::atoi(e->d_name)] = comm;
    }
    if (dir != nullptr) ::closedir(dir);
    return threads;
}

}  // namespace qvtest
