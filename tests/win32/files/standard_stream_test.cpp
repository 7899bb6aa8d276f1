// Output whose reader is slow, stuck or gone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <windows.h>

#include <chrono>
#include <string>
#include <utility>

#include "tests/support/last_error.h"
#include "win32/files/standard_stream.h"

namespace {

int Pipe(int* ends) { return pipe(ends); }
int Socket(int* ends) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }
int Terminal(int* ends) {
    ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
    if (ends[0] < 0 || grantpt(ends[0]) != 0 || unlockpt(ends[0]) != 0) return -1;
    ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
    return ends[1] < 0 ? -1 : 0;
}

class StandardStream : public testing::TestWithParam<int (*)(int*)> {
protected:
    StandardStream() {
        win32::IgnoreBrokenPipes();
        EXPECT_EQ(0, GetParam()(ends));
        EXPECT_EQ(STDERR_FILENO, dup2(ends[1], STDERR_FILENO));
        EXPECT_EQ(STDOUT_FILENO, dup2(ends[1], STDOUT_FILENO));
        close(ends[1]);
    }
    ~StandardStream() override {
        Restore();
        close(keptOut);
        close(keptError);
        if (ends[0] >= 0) close(ends[0]);
    }
    // Before anything is expected: a failure is told on these streams.
    void Restore() {
        dup2(keptOut, STDOUT_FILENO);
        dup2(keptError, STDERR_FILENO);
    }
    std::string Received() const {
        std::string all;
        char bytes[4096];
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;) all.append(bytes, count);
        return all;
    }

    const int keptOut = dup(STDOUT_FILENO), keptError = dup(STDERR_FILENO);
    int ends[2] = {-1, -1};
};

TEST_P(StandardStream, AStuckReaderCostsAMomentOnceAndThenOnlyLines) {
    const auto start = std::chrono::steady_clock::now();
    const std::u16string line(999, u'x');
    for (int i = 0; i < 1000; ++i) OutputDebugStringW((line + u"\n").c_str());
    const auto took = std::chrono::steady_clock::now() - start;
    const std::string taken = Received();
    OutputDebugStringW(u"heard again");
    const std::string after = Received();
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    Restore();
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_LT(taken.size(), 1000000u) << "the reader was never stuck";
    EXPECT_GT(taken.size(), 1000u);
    EXPECT_EQ("heard again", after);
    EXPECT_EQ(0, flags & O_NONBLOCK) << "others share the stream";
}

TEST_P(StandardStream, AReaderThatLeftFailsTheWriteAndNotTheProcess) {
    close(std::exchange(ends[0], -1));
    OutputDebugStringW(u"to nobody");
    DWORD written = 7;
    const DWORD error = ErrorOf(WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), "line", 4, &written, nullptr));
    Restore();
    EXPECT_NE(DWORD{ERROR_SUCCESS}, error);
    EXPECT_EQ(0u, written);
}

TEST_P(StandardStream, WhatTheConsoleDidNotTakeIsAFailedWrite) {
    const std::string much(1 << 20, 'x');
    DWORD written = 0;
    const DWORD error = ErrorOf(
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), much.data(), static_cast<DWORD>(much.size()), &written, nullptr));
    const std::string taken = Received();
    Restore();
    EXPECT_NE(DWORD{ERROR_SUCCESS}, error);
    EXPECT_EQ(written, taken.size());
}

std::string Kind(const testing::TestParamInfo<int (*)(int*)>& each) {
    static constexpr const char* Kinds[] = {"Pipe", "Socket", "Terminal"};
    return Kinds[each.index];
}

INSTANTIATE_TEST_SUITE_P(Stream, StandardStream, testing::Values(Pipe, Socket, Terminal), Kind);

}  // namespace
