// A share of a thread's time for work that strangers ask for: at most so much of it each second.
#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>

namespace tools {

class WORK_SHARE {
public:
    using CLOCK = std::chrono::steady_clock;

    explicit WORK_SHARE(std::chrono::milliseconds ofEachSecond) : each(ofEachSecond) {}

    // Whether more may be done now. What was taken is made up for as time goes by.
    bool Left(CLOCK::time_point now) {
        taken -= std::min<CLOCK::duration>(taken, (now - looked) * each.count() / 1000);
        looked = now;
        return taken < each;
    }
    void Take(CLOCK::duration work) { taken += work; }

private:
    const std::chrono::milliseconds each;
    CLOCK::time_point looked;
    CLOCK::duration taken{};
};

// Of this thread: what others do on a busy machine is not work of this one.
inline std::chrono::steady_clock::duration ProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace tools
