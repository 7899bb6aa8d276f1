// Both ways of reading see the same records in every state of the ring: gone round, harmed anywhere, left by a writer
// that died in the middle.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "tests/win32/log_fixture.h"

namespace win32 {
namespace {

using NUMBERS = std::vector<DWORD>;

NUMBERS Reversed(const NUMBERS& numbers) { return {numbers.rbegin(), numbers.rend()}; }

class RING : public LOG_TEST {
protected:
    size_t Any(size_t from, size_t to) { return std::uniform_int_distribution<size_t>(from, to)(random); }
    DWORD AnyBuffer() { return static_cast<DWORD>(Any(0, 3) == 0 ? 65536 : Any(1200, 9000)); }

    // Records of any length, some of them together; `written` is the last one's event ID.
    void Write(size_t count) {
        EVT_WRITER writer;
        ASSERT_TRUE(writer.Open(Path(), size));
        for (; count > 0; --count) {
            ASSERT_TRUE(writer.Append(AsRecord(MakeRecord(++written, Any(0, 1) * Any(0, longest)))));
            if (Any(0, 19) == 0) writer.Flush();
        }
        writer.Flush();
    }

    void WriterDiesAfter(size_t bytes) {
        bytesBeforeDeath = static_cast<long long>(bytes);
        Write(Any(1, 9));
        bytesBeforeDeath = -1;
    }

    // Random bytes at so many places of the ring, and some records get another's number.
    void Harm(size_t places) {
        const std::string bytes = Bytes();
        const int fd = open(Path().c_str(), O_WRONLY);
        ASSERT_LE(0, fd);
        while (places-- > 0) {
            std::string junk(std::min(Any(0, 3) == 0 ? Any(1, 600) : Any(1, 8), bytes.size() - EvtHeaderBytes), 0);
            for (char& byte : junk) byte = static_cast<char>(Any(0, 255));
            size_t at = Any(EvtHeaderBytes, bytes.size() - junk.size());
            const size_t signature = bytes.find("LfLe", at);
            if (Any(0, 2) == 0 && signature <= bytes.size() - 8 && signature % 4 == 0) {
                const DWORD number = AnyNumberNear(bytes, at = signature + 4);
                junk.assign(reinterpret_cast<const char*>(&number), sizeof(number));
            }
            ASSERT_EQ(static_cast<ssize_t>(junk.size()), pwrite(fd, junk.data(), junk.size(), static_cast<off_t>(at)));
        }
        close(fd);
    }
    DWORD AnyNumberNear(const std::string& bytes, size_t at) {
        DWORD number = 0;
        std::memcpy(&number, bytes.data() + at, sizeof(number));
        return number + static_cast<DWORD>(Any(0, 60)) - std::min<DWORD>(number, 30);
    }

    // The same records in the same order by every way there is.
    void BothWaysAgree() {
        const READ oldestFirst = ReadAll(OpenLog().get(), Forwards, AnyBuffer());
        ASSERT_EQ(DWORD{ERROR_HANDLE_EOF}, oldestFirst.error);
        ASSERT_TRUE(std::is_sorted(oldestFirst.numbers.begin(), oldestFirst.numbers.end(), std::less_equal<>()));
        const LOG log = OpenLog();
        ASSERT_EQ(oldestFirst.numbers, Reversed(ReadAll(log.get(), Backwards, AnyBuffer()).numbers));
        ASSERT_EQ(oldestFirst.numbers, ReadAll(log.get(), Forwards, AnyBuffer()).numbers);
        OneBufferEachWayReachesTheEnd();
    }
    void OneBufferEachWayReachesTheEnd() {
        const DWORD buffer = AnyBuffer();
        const LOG log = OpenLog();
        const READ back = ReadOnce(log.get(), Backwards, buffer), forth = ReadOnce(log.get(), Forwards, buffer);
        ASSERT_EQ(back.numbers, Reversed(forth.numbers));
        ASSERT_EQ(DWORD{ERROR_HANDLE_EOF}, ReadOnce(log.get(), Forwards, buffer).error);
    }

    std::mt19937 random;
    DWORD size = SmallestLog, written = 0;
    size_t longest = 200;
};

TEST_F(RING, BothWaysSeeTheSameRecordsWhateverBecameOfTheLog) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        random.seed(seed);
        longest = Any(10, 500);
        written = 0;
        std::filesystem::remove(Path());
        MakeLog();
        const LOG follower = OpenLog();
        NUMBERS followed;
        const auto follow = [&] {  // gives the event IDs that came
            const READ seen = ReadAll(follower.get(), Forwards, AnyBuffer());
            followed.insert(followed.end(), seen.numbers.begin(), seen.numbers.end());
            return seen.ids;
        };
        for (size_t step = Any(3, 6); step > 0; --step) {
            size = SmallestLog * static_cast<DWORD>(Any(1, 2));
            ASSERT_NO_FATAL_FAILURE(Write(Any(0, 2) == 0 ? Any(1, 10) : Any(1, 3 * size / (100 + longest))));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            ASSERT_EQ(written, follow().back()) << "the follower is at the end";
            ASSERT_NO_FATAL_FAILURE(Harm(Any(0, 1) * Any(1, 12)));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            ASSERT_EQ(NUMBERS(), follow()) << "old records came as new ones";
            if (Any(0, 1) == 0) continue;
            ASSERT_NO_FATAL_FAILURE(WriterDiesAfter(Any(0, 2000)));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            follow();
        }
        ASSERT_TRUE(std::is_sorted(followed.begin(), followed.end(), std::less_equal<>())) << "each came once";
    }
}

}  // namespace
}  // namespace win32
