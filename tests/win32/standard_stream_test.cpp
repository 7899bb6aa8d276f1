// Output whose reader is stuck.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "tests/win32/fixture.h"

namespace {

// While it lives both output streams are one of its kind, whose reader is the test.
class STREAM {
public:
    explicit STREAM(int (*make)(int*)) {
        EXPECT_EQ(0, make(ends));
        EXPECT_EQ(STDERR_FILENO, dup2(ends[1], STDERR_FILENO));
        EXPECT_EQ(STDOUT_FILENO, dup2(ends[1], STDOUT_FILENO));
        close(ends[1]);
    }
    ~STREAM() {
        dup2(keptOut, STDOUT_FILENO);
        dup2(keptError, STDERR_FILENO);
        close(keptOut);
        close(keptError);
        close(ends[0]);
    }
    std::string Received() const {
        std::string all;
        char bytes[4096];
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;) all.append(bytes, count);
        return all;
    }

private:
    const int keptOut = dup(STDOUT_FILENO), keptError = dup(STDERR_FILENO);
    int ends[2] = {-1, -1};
};

int Pipe(int* ends) { return pipe(ends); }
int Socket(int* ends) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }
constexpr std::pair<const char*, int (*)(int*)> Kinds[] = {{"pipe", Pipe}, {"socket", Socket}};

TEST(StandardStream, AStuckReaderCostsAMomentOnceAndThenOnlyLines) {
    for (const auto& [kind, make] : Kinds) {
        SCOPED_TRACE(kind);
        std::string taken, after;
        std::chrono::steady_clock::duration took{};
        int flags = -1;
        {
            const STREAM stream(make);
            const auto start = std::chrono::steady_clock::now();
            const std::u16string line = std::u16string(999, u'x') + u"\n";
            for (int i = 0; i < 1000; ++i) OutputDebugStringW(line.c_str());
            took = std::chrono::steady_clock::now() - start;
            taken = stream.Received();
            OutputDebugStringW(u"heard again");
            after = stream.Received();
            flags = fcntl(STDERR_FILENO, F_GETFL);
        }
        EXPECT_LT(took, std::chrono::seconds(5));
        EXPECT_LT(taken.size(), 1000000u) << "the reader was never stuck";
        EXPECT_GT(taken.size(), 1000u);
        EXPECT_EQ("heard again", after);
        EXPECT_EQ(0, flags & O_NONBLOCK) << "others share the stream";
    }
}

}  // namespace
