// Proves that a build's test programs are code of the processor the build was made for and run as
// such: in the AArch64 build (under qemu-aarch64) they are AArch64 code, natively x86-64 code. The
// build passes its CMAKE_SYSTEM_PROCESSOR as QV_TARGET_PROCESSOR.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cctype>
#include <cstdint>
#include <fstream>
#include <string>
#include <type_traits>

#ifndef QV_TARGET_PROCESSOR
#error "QV_TARGET_PROCESSOR must name the processor the build is for"
#endif

namespace {

// One name per processor, whichever spelling the build system or the kernel uses.
std::string CanonicalProcessor(std::string name) {
    for (char &c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (name == "arm64") return "aarch64";
    if (name == "amd64" || name == "x64") return "x86_64";
    return name;
}

const std::string kTarget = CanonicalProcessor(QV_TARGET_PROCESSOR);

// The processor the compiler generated this code for.
constexpr const char *kCompiledFor =
#if defined(__aarch64__)
    "aarch64";
#elif defined(__x86_64__)
    "x86_64";
#else
    "unknown";
#endif

// ELF machine numbers of the two processors this project builds for.
constexpr std::uint16_t kElfMachineX86_64 = 62;
constexpr std::uint16_t kElfMachineAarch64 = 183;

}  // namespace

TEST(TargetArch, CodeCompiledLoadedAndRunIsForTheBuildsProcessor) {
    ASSERT_TRUE(kTarget == "aarch64" || kTarget == "x86_64") << "CMAKE_SYSTEM_PROCESSOR: " << QV_TARGET_PROCESSOR;
    EXPECT_EQ(kCompiledFor, kTarget);
    // The ABI difference that bites the agent silently: plain char is unsigned on AArch64.
    EXPECT_EQ(std::is_signed_v<char>, kTarget == "x86_64");
    // e_machine sits at offset 18 of the ELF header, in the file's own byte order (little-endian on
    // both processors).
    std::ifstream exe("/proc/self/exe", std::ios::binary);
    unsigned char head[20] = {};
    ASSERT_TRUE(exe.read(reinterpret_cast<char *>(head), sizeof head)) << "cannot read /proc/self/exe";
    ASSERT_EQ(std::string(reinterpret_cast<const char *>(head), 4), "\x7f" "ELF");
    const auto machine = static_cast<std::uint16_t>(head[18] | (head[19] << 8));
    EXPECT_EQ(machine, kTarget == "aarch64" ? kElfMachineAarch64 : kElfMachineX86_64);
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_EQ(CanonicalProcessor(name.machine), kTarget);
}
