// Threads for name look-ups. The C library cannot be told to give up on a name server, so each look-up that might wait
// for one has a thread of its own, which is left behind when nobody wants its answer any more.
#pragma once

#include <atomic>
#include <functional>

namespace win32 {

// How many look-ups of one kind may be under way; with that many hanging, the next one fails at once instead.
constexpr int MostLookups = 16;

// Runs the job on a detached thread with all signals blocked. inFlight counts the jobs of one kind and must never be
// destroyed. The job owns what it uses. False: too many under way, or no thread to be had; the job does not run.
bool RunLookup(std::atomic<int>& inFlight, std::function<void()> job);

}  // namespace win32
