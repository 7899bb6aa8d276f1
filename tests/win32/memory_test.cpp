// Memory by the page, as the kernel gives it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>

#include "tests/win32/fixture.h"

namespace {

constexpr DWORD Fresh = MEM_RESERVE | MEM_COMMIT;
constexpr SIZE_T Huge = SIZE_T{2} << 20;

// Without memory of its own, which would count as well.
size_t MappedPages() {
    char text[256] = {};
    const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    EXPECT_LT(0, read(file, text, sizeof(text) - 1));
    close(file);
    return std::strtoul(text, nullptr, 10);
}

// Whether the kernel has been asked for huge pages where the area lies.
bool WantsHugePages(const void* area) {
    const auto address = reinterpret_cast<uintptr_t>(area);
    std::ifstream maps("/proc/self/smaps");
    bool here = false;
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0, end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2) here = begin <= address && address < end;
        if (here && line.starts_with("VmFlags:")) return line.find(" hg") != std::string::npos;
    }
    return false;
}

TEST(Pages, AreZerosToReadAndWrite) {
    const bool hasHugePages = access("/sys/kernel/mm/transparent_hugepage", F_OK) == 0;
    for (const SIZE_T bytes : {SIZE_T{1}, SIZE_T{4096}, SIZE_T{100000}, Huge - 1, Huge, 3 * Huge + 1}) {
        SCOPED_TRACE(bytes);
        for (int round = 0; round < 3; ++round) {
            auto* const area = static_cast<BYTE*>(VirtualAlloc(nullptr, bytes, Fresh, PAGE_READWRITE));
            ASSERT_NE(nullptr, area);
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(area) % (bytes >= Huge ? Huge : 4096));
            EXPECT_TRUE(std::all_of(area, area + bytes, [](BYTE byte) { return byte == 0; }));
            std::memset(area, 1, bytes);
            EXPECT_EQ(hasHugePages && bytes >= Huge, WantsHugePages(area));
            EXPECT_TRUE(VirtualFree(area, 0, MEM_RELEASE));
        }
    }
}

TEST(Pages, AreNoMoreThanAskedForAndGoAsAWhole) {
    for (const SIZE_T bytes : {SIZE_T{1}, SIZE_T{8192}, Huge, 2 * Huge + 1}) {
        SCOPED_TRACE(bytes);
        LPVOID areas[16];
        const size_t before = MappedPages();
        for (LPVOID& area : areas) area = VirtualAlloc(nullptr, bytes, Fresh, PAGE_READWRITE);
        const size_t held = MappedPages();
        for (const LPVOID area : areas) EXPECT_TRUE(VirtualFree(area, 0, MEM_RELEASE));
        const size_t after = MappedPages();
        EXPECT_EQ(before, after);
        EXPECT_EQ(before + std::size(areas) * ((bytes + 4095) / 4096 + 1), held);  // and one for the length
    }
}

TEST(Pages, ThereAreNoneOfAnotherKind) {
    BYTE here = 0;
    const std::tuple<LPVOID, SIZE_T, DWORD, DWORD, DWORD> cases[] = {
        {&here, 1, Fresh, PAGE_READWRITE, ERROR_INVALID_PARAMETER},
        {nullptr, 0, Fresh, PAGE_READWRITE, ERROR_INVALID_PARAMETER},
        {nullptr, 1, MEM_RESERVE, PAGE_READWRITE, ERROR_INVALID_PARAMETER},
        {nullptr, 1, Fresh, 0x02, ERROR_INVALID_PARAMETER},
        {nullptr, SIZE_T{1} << 62, Fresh, PAGE_READWRITE, ERROR_NOT_ENOUGH_MEMORY},
        {nullptr, ~SIZE_T{0}, Fresh, PAGE_READWRITE, ERROR_NOT_ENOUGH_MEMORY}};
    for (const auto& [address, bytes, type, protection, error] : cases) {
        SCOPED_TRACE(bytes);
        SetLastError(0);
        EXPECT_EQ(nullptr, VirtualAlloc(address, bytes, type, protection));
        EXPECT_EQ(error, GetLastError());
    }
    const LPVOID area = VirtualAlloc(nullptr, 1, Fresh, PAGE_READWRITE);
    EXPECT_FALSE(VirtualFree(area, 1, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(area, 0, 0x4000));
    EXPECT_FALSE(VirtualFree(nullptr, 0, MEM_RELEASE));
    EXPECT_TRUE(VirtualFree(area, 0, MEM_RELEASE));
}

}  // namespace
