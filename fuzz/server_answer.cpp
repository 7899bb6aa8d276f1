// Bytes of a hostile server, in pieces of any size, on their way through the session to the check of a response. The
// first byte says how long the pieces are.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "protocol/identity_protocol.h"
#include "protocol/identity_reports.h"
#include "service/stop.h"

using namespace keldwick;

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// What is wrong with an answer is written as an error, to a log file that cannot be made here and to standard error,
// which the fuzzer keeps for itself.
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
    setenv("KELDWICK_ROOT", "/dev/null", 1);
    static char quiet[] = "-close_fd_mask=2";
    static std::vector<char*> extended(*arguments, *arguments + *count);
    extended.push_back(quiet);
    extended.push_back(nullptr);
    *arguments = extended.data();
    ++*count;
    StopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static IDENTITY_PROTOCOL& session = *new IDENTITY_PROTOCOL;
    const size_t piece = std::max<size_t>(data[0], 1);
    for (size_t at = 1; at < size; at += piece) session.DataIn(data + at, static_cast<int>(std::min(piece, size - at)));
    std::span<const BYTE> response;
    if (!session.ReceiveResponse(response) || response.size() != size - 1) abort();
    const BYTE request[34] = {0, 34, 0, 3, 0, 0x10, 0, 0, 0, 2};
    const bool good = IsAnswerTo(TEXT("Fuzz"), request, response);
    const bool expected = response.size() == ResponseLength && response[4] == 0x80 && response[5] == 0x10 &&
                          std::equal(request + 6, request + 10, response.begin() + 6);
    if (good != expected) abort();
    return 0;
}
