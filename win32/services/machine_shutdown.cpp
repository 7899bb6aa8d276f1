#include "win32/services/machine_shutdown.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace win32 {

namespace {

using CLOCK = std::chrono::steady_clock;
using BUS = std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)>;

struct ANSWER {
    bool arrived = false;
    std::string state;  // empty: it was an error
};

int OnAnswer(sd_bus_message* message, void* memory, sd_bus_error*) {
    ANSWER& answer = *static_cast<ANSWER*>(memory);
    const char* state = nullptr;
    if (sd_bus_message_is_method_error(message, nullptr) == 0 && sd_bus_message_read(message, "v", "s", &state) > 0)
        answer.state = state;
    answer.arrived = true;
    return 0;
}

// Not sd_bus_call and its like: they may wait a minute and more for a bus that is not there yet.
void Await(sd_bus* bus, const ANSWER& answer, CLOCK::time_point end) {
    while (!answer.arrived) {
        const int done = sd_bus_process(bus, nullptr);
        if (done < 0) return;
        if (done > 0) continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - CLOCK::now()).count();
        if (left <= 0 || sd_bus_wait(bus, static_cast<uint64_t>(left)) < 0) return;
    }
}

}  // namespace

bool IsMachineShuttingDown() {
    constexpr auto patience = std::chrono::seconds(2);
    sd_bus* connection = nullptr;
    if (sd_bus_open_system(&connection) < 0) return false;
    const BUS bus(connection, sd_bus_close_unref);
    ANSWER answer;
    if (sd_bus_call_method_async(bus.get(), nullptr, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                 "org.freedesktop.DBus.Properties", "Get", OnAnswer, &answer, "ss",
                                 "org.freedesktop.systemd1.Manager", "SystemState") >= 0)
        Await(bus.get(), answer, CLOCK::now() + patience);
    return answer.state == "stopping";
}

}  // namespace win32
