// Helpers shared by the test programs.
#ifndef QV_TEST_SUPPORT_H
#define QV_TEST_SUPPORT_H

#include <cstdint>
#include <map>
#include <string>

namespace qvtest {

// True when /opt is a tmpfs mounted in this process's own mount namespace.
bool OptIsPrivateTmpfs();

// Whole contents of a file, or an empty string when it cannot be read.
std::string ReadFile(const std::string &path);
bool FileExists(const std::string &path);

// This process's threads that exist now, by kernel thread id, with their names.
std::map<int, std::string> Threads();

}  // namespace qvtest

#endif
