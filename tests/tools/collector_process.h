// The real qvcollector, or another program of the build, as a child process. Test programs run in a network namespace of their own, so
// the collector's ports are free. Every wait is bounded in time.
#ifndef QV_TEST_TOOLS_COLLECTOR_PROCESS_H
#define QV_TEST_TOOLS_COLLECTOR_PROCESS_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace wiretest {

class CollectorProcess {
public:
    ~CollectorProcess();

    // Starts qvcollector (under the emulator in a cross build) with these arguments, its output and
    // errors on pipes.
    bool Spawn(const std::vector<std::string> &args);
    // The same for the program at path.
    bool SpawnProgram(const std::string &path, const std::vector<std::string> &args);
    // Starts qvcollector with these options on the given base port and waits for it to announce its
    // ports. False when it could not be started; the reason is then in Stderr().
    bool StartAt(uint16_t base, const std::vector<std::string> &options);

    // The next line of standard output, or nothing after timeoutMs.
    std::optional<std::string> NextLine(int timeoutMs);
    // Hands each line of standard output to take until it returns true or timeoutMs passed (0: only
    // the lines already there); whether take said enough.
    bool ReadLines(int timeoutMs, const std::function<bool(const std::string &)> &take);

    // Waits for the process to end by itself, then reads what it left; returns its exit status or -1.
    int WaitExit(int timeoutMs);
    // Sends sig, then as WaitExit.
    int Stop(int sig, int timeoutMs);

    bool Running() const { return pid_ > 0; }
    // What was read from standard error so far.
    const std::string &Stderr() const { return text_[1]; }

private:
    bool Pump(int timeoutMs);  // reads what arrives on both pipes; false once both are closed

    pid_t pid_ = -1;
    int status_ = -1;
    std::array<int, 2> fd_{-1, -1};  // standard output, standard error
    std::array<std::string, 2> text_;
};

// The value after the first "key": at or after `from` in a JSON line of the collector: a string
// without its quotes, or a number or literal; empty when there is none.
std::string Field(const std::string &line, const std::string &key, size_t from = 0);

}  // namespace wiretest

#endif
