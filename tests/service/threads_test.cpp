#include "service/threads.h"

#include "agent_test.h"
#include "platform/handles.h"

namespace keldwick {
namespace {

// Events stand for threads: signalled, they have ended.
class ThreadsTest : public AGENT_TEST {
protected:
    ThreadsTest() { Script.clock = 1000; }

    static HANDLE Thread(bool ended) { return CreateEventW(nullptr, TRUE, ended, nullptr); }

    // Every wait takes that long and gives that result, or what the handles give.
    static void EveryWait(DWORD milliseconds, std::optional<DWORD> result) {
        Script.wait = [=](DWORD, DWORD) -> std::optional<DWORD> {
            Script.clock += milliseconds;
            return result;
        };
    }
};

int Asked = 0;
void CountAsking(HANDLE) { ++Asked; }

TEST_F(ThreadsTest, ThreadsThatEndAreCountedNamedAndTheirSlotsEmptied) {
    for (const THREAD_LOG log : {THREAD_LOG{DebugPrintText}, THREAD_LOG{}}) {
        Forget();
        HANDLE single = Thread(true);
        HANDLE none = nullptr;
        HANDLE array[] = {Thread(true), Thread(true)};
        EveryWait(250, std::nullopt);
        Asked = 0;
        StopThreads(5000, log,
                    {{TEXT("A"), CountAsking, nullptr, &single},
                     {TEXT("None"), CountAsking, nullptr, &none},
                     {TEXT("B"), CountAsking, nullptr, array, true, 2}});
        const LINES expected{"Stopping A thread", "Stopping B thread #1", "Stopping B thread #2",
                             "%Waiting 5.000 seconds for 3 threads to stop ...",
                             "3 threads stopped normally in 0.250 seconds"};
        EXPECT_EQ(log ? expected : LINES(), Lines());
        EXPECT_EQ(3, Asked);
        for (const HANDLE slot : {single, array[0], array[1]}) EXPECT_EQ(nullptr, slot);
    }
}

TEST_F(ThreadsTest, WhatAWaitLeavesBehindIsTerminatedOrNoted) {
    const std::pair<DWORD, const char*> cases[] = {
        // the wait's result and how the line about it begins
        {WAIT_TIMEOUT, ""},
        {WAIT_FAILED, "Failure waiting for 2 threads to complete. "},
        {WAIT_ABANDONED_0, "Unexpected result = 128 waiting for 2 threads to stop"}};
    for (const auto& [result, line] : cases) {
        SCOPED_TRACE(line);
        Forget();
        HANDLE array[] = {Thread(true), Thread(false)};
        const HANDLE running = array[1];
        EveryWait(5000, result);
        StopThreads(5000, DebugPrintText, {{TEXT("B"), nullptr, nullptr, array, true, 2}});
        LINES lines = Lines();
        if (*line != 0) {
            EXPECT_THAT(lines.at(3), StartsWith(line));
            lines.erase(lines.begin() + 3);
        }
        ASSERT_EQ(5u, lines.size());
        EXPECT_EQ("B thread #1 stopped", lines[3]);
        EXPECT_EQ("Terminating B thread #2", lines[4]);
        EXPECT_THAT(Recorded.terminated, ElementsAre(running));
        EXPECT_EQ(nullptr, array[1]);
    }
}

HANDLE Gate;
unsigned WINAPI WaitAtGate(void*) { return WaitForSingleObject(Gate, 5000); }
void OpenGate(HANDLE gate) { SetEvent(gate); }

TEST_F(ThreadsTest, AGroupStopsItsThreadsUnlessItWasReleasedOrHasNone) {
    Script = SCRIPT();
    const HANDLE_OWNER gate(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Gate = gate.Get();
    HANDLE slots[2] = {};
    {
        THREAD_GROUP group(TEXT("Gate"), slots, DebugPrintText, OpenGate, gate.Get());
        ASSERT_TRUE(group.Start(WaitAtGate));
        group.Release();
    }
    EXPECT_NE(nullptr, slots[0]);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(gate.Get(), 0));
    {
        THREAD_GROUP group(TEXT("Gate"), slots + 1, DebugPrintText, OpenGate, gate.Get());
        ASSERT_TRUE(group.Start(WaitAtGate));
    }
    EXPECT_EQ(nullptr, slots[1]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(gate.Get(), 0));
    EXPECT_EQ("Stopping Gate thread", Lines()[0]);
    EXPECT_TRUE(Recorded.terminated.empty());
    StopThreads(5000, nullptr, {{TEXT("Gate"), nullptr, nullptr, slots}});

    Forget();
    const FAIL_CALL none(beginThread, 0, ERROR_NOT_ENOUGH_MEMORY);
    {
        THREAD_GROUP group(TEXT("Gate"), slots, DebugPrintText, OpenGate, nullptr);
        EXPECT_FALSE(group.Start(WaitAtGate));
    }
    EXPECT_EQ(nullptr, slots[0]);
    EXPECT_EQ(LINES(), Lines());
}

}  // namespace
}  // namespace keldwick
