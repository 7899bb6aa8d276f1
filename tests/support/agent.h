// The whole agent in a machine root of its own, against identity servers and a directory that a test scripts, under a
// clock that the test moves. The agent runs on the test's thread: a test plans what happens when, calls Run, and looks
// at what the servers have seen.
#pragma once

#include <gmock/gmock.h>

#include "diagnostics/log_file.h"
#include "platform/registry_values.h"
#include "protocol/identity_protocol.h"
#include "service/command_line.h"
#include "service/entry.h"
#include "service/service_main.h"
#include "service/settings.h"
#include "service/stop.h"
#include "tests/support/entry_lines.h"
#include "tests/support/registry_text.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temporary_root.h"
#include "tests/support/wrapped_calls.h"
#include "tools/keldwick-server/request.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/sync/kernel_object.h"

namespace keldwick {

using LINES = std::vector<std::string>;

inline CALL_PLAN notifyChange;  // of NotifyChangeEventLog

class AGENT : public testing::Test {
protected:
    DWORD logBytes = 1024 * 1024;  // of the Security log
    inline static const std::string KeyName = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick";
    static constexpr VIRTUAL_CLOCK::TIME Start = 134'176'032'000'000'000;  // 2026-03-10 08:00:00

    AGENT() {
        setenv("TZ", "UTC-2", 1);  // two hours ahead of UTC
        tzset();
        std::filesystem::create_directories(root.Path("eventlog"));
        EXPECT_TRUE(win32::CreateLogFile(SecurityLog(), logBytes));
        changeObject.reset();
        CommandLine = COMMAND_LINE();
        SetDebugOutputPrefix(TEXT("KDWK: "));
        EXPECT_TRUE(SetLogPath(2, TEXT("Keldwick"), 0));
        Said().events.clear();
        Said().states.clear();
    }
    ~AGENT() override {
        NameServer().name.clear();
        SettingsKey.Reset();
        StatisticsKey.Reset();
    }

    // ---- The world around the agent ----

    // An identity server, at Server(number). tls: see SCRIPTED_SERVER.
    SCRIPTED_SERVER& Serve(int number, SSL_CTX* tls, int port) {
        servers[number] = std::make_unique<SCRIPTED_SERVER>(number, tls, port);
        AnswerEach(number, [](const std::string& request) { return SCRIPTED_SERVER::GoodAnswer(request); });
        return *servers[number];
    }
    SCRIPTED_SERVER& Serve(int number = 0, SSL_CTX* tls = nullptr) { return Serve(number, tls, tls ? 1308 : 1306); }
    // What the server sends for a request; every request is noted.
    void AnswerEach(int number, const SCRIPTED_SERVER::SCRIPT& script) {
        servers[number]->Answer([this, number, script](const std::string& request) {
            requests.push_back(request);
            reports.push_back(Time() + (number == 0 ? " " : " #" + std::to_string(number) + " ") + ReportText(request));
            return script(request);
        });
    }
    // The directory: the domain CORP, which is corp.example in DNS and DC=corp, with these entries (see Entries).
    void MakeDirectory(const std::string& entries) const {
        root.Write("directory.ldif",
                   Entries("dn: CN=C,CN=Partitions,CN=Configuration,DC=corp|nCName: DC=corp|dnsRoot: corp.example|"
                           "nETBIOSName: CORP\n" +
                           entries));
    }
    void EndServer(int number = 0) { servers[number].reset(); }
    static std::string Server(int number = 0) { return "'" + SCRIPTED_SERVER::Host(number) + "'"; }

    // Plans something for a time of the day after Start, "HH:MM:SS"; of the next day: "+HH:MM:SS".
    void At(const std::string& time, std::function<void()> action) {
        clock.At(Start + (SecondsOf(time) - StartSeconds) * VIRTUAL_CLOCK::Second, std::move(action));
    }

    // Appends events to the Security log in one go. A running agent that follows it hears of it before this returns.
    void Write(const std::vector<win32::NEW_EVENT>& events) {
        ChangeLog([&] {
            win32::EVT_WRITER writer;
            EXPECT_TRUE(writer.Open(SecurityLog(), logBytes));
            for (const win32::NEW_EVENT& event : events) {
                win32::BYTES record;
                EXPECT_TRUE(win32::BuildRecord(event, record));
                EXPECT_TRUE(writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())));
            }
            EXPECT_TRUE(writer.Flush());
        });
    }
    void ClearLog() {
        ChangeLog([&] { EXPECT_TRUE(win32::ClearLogFile(SecurityLog(), logBytes)); });
    }
    // Changes a value of the settings key; the running agent has taken it up when this returns.
    static void Set(const WCHAR* name, const WCHAR* value) {
        VIRTUAL_CLOCK::Through(SettingsNotifyEvent, [&] { EXPECT_TRUE(RegSetString(SettingsKey.Get(), name, value)); });
    }
    static void Set(const WCHAR* name, DWORD value) {
        VIRTUAL_CLOCK::Through(SettingsNotifyEvent, [&] { EXPECT_TRUE(RegSetDword(SettingsKey.Get(), name, value)); });
    }

    // False: nothing moved, and nothing is on its way.
    bool LetTheWorldMove() {
        bool moved = false;
        for (const auto& [number, server] : servers)
            if (server) moved = server->Step() || moved;
        if (moved || NetworkIsQuiet()) return moved;
        poll(nullptr, 0, 1);  // it is on its way
        return true;
    }

    // ---- The agent ----

    // Makes the settings key, or the one below it, with these values in it (see RegistryText).
    void MakeSettings(const std::string& values, const std::string& below = "") const {
        root.Write("registry.reg", RegistryText(KeyName + below, values));
    }
    // Runs it as an application with these settings from Start to that time.
    void Run(const std::string& settings, const std::string& end) {
        MakeSettings(settings);
        At(end, [] { StopService(TEXT("the scenario is over")); });
        WithArguments({TEXT("-A")}, [](DWORD count, WCHAR** arguments) {
            EXPECT_EQ(0, RunProgram(static_cast<int>(count), arguments));
        });
    }
    // Starts it with the service's name and these arguments.
    static void WithArguments(const std::vector<const WCHAR*>& options,
                              const std::function<void(DWORD count, WCHAR** arguments)>& start) {
        std::vector<STRING> texts{STRING(ServiceName)};
        for (const WCHAR* option : options) texts.emplace_back(option);
        std::vector<WCHAR*> arguments;
        for (STRING& text : texts) arguments.push_back(text.Buffer());
        start(static_cast<DWORD>(arguments.size()), arguments.data());
        CommandLine = COMMAND_LINE();
    }

    // ---- What came of it ----

    // The time of the day, with a "+" from the next day on.
    std::string Time() const {
        const int seconds = static_cast<int>((clock.Now() - Start) / VIRTUAL_CLOCK::Second) + StartSeconds;
        char text[16];
        std::snprintf(text, sizeof(text), "%s%02d:%02d:%02d", seconds >= DaySeconds ? "+" : "", seconds / 3600 % 24,
                      seconds / 60 % 60, seconds % 60);
        return text;
    }
    // Of such a time: its seconds since midnight.
    static int SecondsOf(const std::string& time) {
        int hours = 0, minutes = 0, seconds = 0;
        EXPECT_EQ(3, std::sscanf(time.c_str() + time.starts_with('+'), "%d:%d:%d", &hours, &minutes, &seconds));
        return hours * 3600 + minutes * 60 + seconds + (time.starts_with('+') ? DaySeconds : 0);
    }
    static std::string Statistics() {
        DWORD logons = 99, tickets = 99;
        RegGetDword(StatisticsKey.Get(), TEXT("Logons"), logons);
        RegGetDword(StatisticsKey.Get(), TEXT("ServiceTickets"), tickets);
        return std::to_string(logons) + " " + std::to_string(tickets);
    }
    // "logon DOMAIN\user on DOMAIN\computer at ADDRESS", with DNs in parentheses and groups in brackets.
    static std::string ReportText(const std::string& bytes) {
        tools::REQUEST request;
        size_t wanted = 0;
        std::string reason;
        const auto* const first = reinterpret_cast<const uint8_t*>(bytes.data());
        if (tools::ParseRequest({first, bytes.size()}, request, wanted, reason) != tools::PARSED::Whole)
            return "no request: " + reason;
        const auto named = [](const std::u16string& name, const std::u16string& dn) {
            return Narrow(name.c_str()) + (dn.empty() ? "" : " (" + Narrow(dn.c_str()) + ")");
        };
        std::string text = tools::KindName(request.kind) + (" " + named(request.user, request.userDn));
        if (!request.computer.empty()) text += " on " + named(request.computer, request.computerDn);
        text += " at " + request.address;
        if (request.groupsStated != 0) text += " [" + std::to_string(request.groupsStated);
        for (const tools::GROUP& group : request.groups) text += " " + named(group.domain, group.dn);
        return text + (request.groupsStated != 0 ? "]" : "");
    }

    TEMPORARY_ROOT root;
    std::map<int, std::unique_ptr<SCRIPTED_SERVER>> servers;
    LINES requests;  // their bytes
    LINES reports;   // "HH:MM:SS #SERVER REPORT" in the order of their arrival; the number of server 0 is left out
    VIRTUAL_CLOCK clock{Start, [this] { return LetTheWorldMove(); }};
    DEBUG_LINES lines;  // ends before its folder, and closes the log file there

public:
    static void Registered(HANDLE event) {
        changeEvent = event;
        changeObject = win32::ObjectOf(event);
    }

private:
    static constexpr int StartSeconds = 8 * 3600, DaySeconds = 24 * 3600;

    std::string SecurityLog() const { return root.Path("eventlog/Security.evt"); }

    // Takes the pulse that the change causes, after any that was there before, and leaves one for the agent.
    template <typename CHANGE>
    static void ChangeLog(CHANGE change) {
        const std::shared_ptr<win32::KERNEL_OBJECT> followed = changeObject.lock();
        if (!followed) return change();
        __real_WaitForSingleObject(changeEvent, 0);
        change();
        EXPECT_EQ(WAIT_OBJECT_0, __real_WaitForSingleObject(changeEvent, 30000));
        win32::PulseEventObject(*followed);
    }

    // What the agent has registered for changes of its log.
    static inline HANDLE changeEvent;
    static inline std::weak_ptr<win32::KERNEL_OBJECT> changeObject;  // gone when the agent has closed the handle
};

// A session with the first server, without the agent around it.
class SESSION : public AGENT {
protected:
    SESSION() {
        CoInitialize(nullptr);
        DirectoryPaths().clear();
        StopEvent = stop.Get();
        SettingsChangedEvent = changed.Get();
        Settings.identServer = STRING(SCRIPTED_SERVER::Host().c_str());
        Settings.adServer.Clear();
        Settings.identProtocol = PROTOCOL_TCP;
        session = std::make_unique<IDENTITY_PROTOCOL>();
        CurrentSession = session.get();
    }
    ~SESSION() override {
        CurrentSession = nullptr;
        session.reset();
        StopEvent = SettingsChangedEvent = nullptr;
        CoUninitialize();
    }

    const HANDLE_OWNER stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const HANDLE_OWNER changed{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::unique_ptr<IDENTITY_PROTOCOL> session;
};

}  // namespace keldwick

WRAPPED(BOOL, NotifyChangeEventLog, (HANDLE log, HANDLE event)) {
    if (keldwick::notifyChange.Fires()) return FALSE;
    keldwick::AGENT::Registered(event);
    return __real_NotifyChangeEventLog(log, event);
}
