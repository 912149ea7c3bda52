#include <QDPlatform/QDSystemDBus.h>

#include "ChildProcess.h"
#include "MountedOver.h"
#include "OpenDescriptors.h"
#include "RecordingLog.h"
#include "ScopedVariable.h"
#include "ScriptedServer.h"
#include "SystemBus.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// In the order in which they are looked up.
constexpr const char* kFunctions[] = {
    "sd_bus_default_system", "sd_bus_open_system", "sd_bus_flush_close_unref",
    "sd_bus_close",          "sd_bus_unref",       "sd_bus_get_property_string",
    "sd_bus_call_method",    "sd_bus_error_free",  "sd_bus_message_unref",
};

// The lines of an opening that finds libsystemd, whose functions have the addresses that the loader tells.
std::vector<std::string> LinesOfOpening()
{
    std::vector<std::string> lines{"DBus: Find libsystemd...", "DBus: Locate systemd functions..."};
    void* const library = ::dlopen("libsystemd.so.0", RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_NE(library, nullptr) << "libsystemd does not stay loaded";
    if (library == nullptr)
        return lines;
    for (const char* name : kFunctions) {
        char line[256];
        std::snprintf(line, sizeof line, "DBus: %s() found at %p", name, ::dlsym(library, name));
        lines.push_back(line);
    }
    ::dlclose(library);
    return lines;
}

bool IsSystemdLibraryInMemory()
{
    void* const library = ::dlopen("libsystemd.so.0", RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr)
        ::dlclose(library);
    return library != nullptr;
}

// A libsystemd of the test's own for the programs that it starts. Its path is that of the object, and "libsystemd.so".
class StubLibrary
{
public:
    explicit StubLibrary(const char* file) { std::filesystem::copy_file(file, m_Folder / "libsystemd.so"); }

    const std::string& GetPath() const { return m_Folder.GetPath(); }

    // What service-program prints, without the lines of the look-up. commands: from the first one on.
    std::string Run(std::vector<std::string> commands) const
    {
        const std::vector<std::string> start{"env", "LD_LIBRARY_PATH=" + m_Folder.GetPath(), SERVICE_PROGRAM, "x"};
        commands.insert(commands.begin(), start.begin(), start.end());
        ChildProcess program(commands);
        EXPECT_EQ(program.WaitForExit(), 0) << program.GetErrors();
        return program.GetOutput();
    }

private:
    TemporaryFolder m_Folder;
};

// The text behind the last line of the look-up of the functions.
std::string BehindLookUp(const std::string& output)
{
    const std::size_t last = output.find("DBus: sd_bus_message_unref() found at ");
    return last == std::string::npos ? "no look-up: " + output : output.substr(output.find('\n', last) + 1);
}

} // namespace

static_assert(!std::is_copy_constructible_v<QDSystemDBus> && !std::is_copy_assignable_v<QDSystemDBus>);

// --- OpenSystemDBus ---

TEST(QDSystemDBus, OpenLooksUpNineFunctionsInOrder)
{
    const SystemBus system;
    RecordingLog log;
    QDSystemDBus bus(&log);

    EXPECT_TRUE(bus.OpenSystemDBus("x"));

    EXPECT_EQ(log.GetTexts(), LinesOfOpening());
    for (const RecordingLog::Message& message : log.GetMessages())
        EXPECT_EQ(message.m_Type, COutputLog::Info);
}

TEST(QDSystemDBus, OpenFailsWithoutABus)
{
    const ScopedVariable address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");
    RecordingLog log;
    QDSystemDBus bus(&log);

    EXPECT_FALSE(bus.OpenSystemDBus("x"));

    EXPECT_EQ(log.GetTexts(), LinesOfOpening()); // the refusal itself is silent
    log.Clear();
    bus.CloseSystemDBus();
    EXPECT_TRUE(log.GetTexts().empty());
}

TEST(QDSystemDBus, OpenFailsWithoutTheLibrary)
{
    const std::filesystem::path link = SYSTEMD_LIBRARY;
    const std::filesystem::path folder = std::filesystem::canonical(link.parent_path());
    if (std::filesystem::canonical(link).parent_path() != folder)
        GTEST_SKIP() << link << " leads to another folder";
    const ChangeableFolder libraries(folder);
    if (!libraries.IsMounted())
        GTEST_SKIP() << libraries.GetReason();
    ASSERT_TRUE(std::filesystem::remove(folder / "libsystemd.so"));
    ASSERT_TRUE(std::filesystem::remove(folder / "libsystemd.so.0"));

    // In a process of its own: the emulator of other architectures remembers which of the system's files exist.
    ChildProcess program({SERVICE_PROGRAM, "x", "open"});

    EXPECT_EQ(program.WaitForExit(), 0) << program.GetErrors();
    EXPECT_EQ(program.GetOutput(),
              "DBus: Find libsystemd...\n"
              "DBus: ...failed: libsystemd.so.0: cannot open shared object file: No such file or directory\n"
              "open: true, kind 3, installed, running\n");
}

TEST(QDSystemDBus, OpenFailsWithAnUnreadableLibrary)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "empty", "");
    const MountedOver nothing(folder / "empty", std::filesystem::canonical(SYSTEMD_LIBRARY));
    if (!nothing.IsMounted())
        GTEST_SKIP() << nothing.GetReason();

    // In a process of its own: in this one the library may still be in memory.
    ChildProcess program({SERVICE_PROGRAM, "x", "open"});

    EXPECT_EQ(program.WaitForExit(), 0) << program.GetErrors();
    EXPECT_THAT(program.GetOutput(), AllOf(StartsWith("DBus: Find libsystemd...\nDBus: ...failed: /"),
                                           EndsWith("/libsystemd.so.0: file too short\n"
                                                    "open: true, kind 3, installed, running\n")));
}

TEST(QDSystemDBus, AllFunctionsAreLookedUpAfterAMissingOne)
{
    const StubLibrary library(SYSTEMD_STUB_WITHOUT_CLOSE);

    const std::string output = library.Run({"open"});

    const std::string missing = "DBus: Find sd_bus_close() returns: " + library.GetPath() +
                                "/libsystemd.so: undefined symbol: sd_bus_close\n"
                                "DBus: sd_bus_close() found at (nil)\n"
                                "DBus: sd_bus_unref() found at 0x";
    EXPECT_THAT(output, HasSubstr(missing));
    std::size_t position = 0;
    for (const char* name : kFunctions) {
        SCOPED_TRACE(name);
        position = output.find("DBus: " + std::string(name) + "() found at ", position);
        ASSERT_NE(position, std::string::npos) << output;
    }
    // Nothing of the library was called, and the way of the init script was taken.
    EXPECT_EQ(BehindLookUp(output), "open: true, kind 3, installed, running\n");
}

TEST(QDSystemDBus, RefusedOpenIsNotAnOpenBus)
{
    const StubLibrary library(SYSTEMD_STUB_REFUSES);

    const std::string output = library.Run({"open", "close"});

    EXPECT_EQ(BehindLookUp(output), "(open_system)\n"
                                    "open: true, kind 3, installed, running\n"
                                    "close: true, kind 3, installed, running\n");
}

TEST(QDSystemDBus, BusThatTurnsTheUserAwayShowsInTheFirstCall)
{
    const ScriptedServer server([](ScriptedConnection& peer) {
        peer.ReadBytes(1);
        peer.Send("REJECTED EXTERNAL\r\nERROR\r\nERROR\r\n"); // for AUTH and the lines that came with it
        peer.ReadToEnd();
    });
    const std::string port = std::to_string(server.GetPort());
    const ScopedVariable address("DBUS_SYSTEM_BUS_ADDRESS", ("tcp:host=127.0.0.1,port=" + port).c_str());
    RecordingLog log;
    QDSystemDBus bus(&log);
    std::string state = "before";

    EXPECT_TRUE(bus.OpenSystemDBus("x"));
    log.Clear();
    EXPECT_FALSE(bus.GetPropertyString("LoadState", state));

    EXPECT_EQ(state, "before");
    EXPECT_THAT(log.GetTexts(), ElementsAre(StartsWith(
                                    "DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', "
                                    "'LoadState' ) returns ")));
}

TEST(QDSystemDBus, SecondOpenClosesTheFirst)
{
    const SystemBus system;
    const SystemdStandIn systemd({"y.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    log.Clear();
    const int before = CountOpenDescriptors();
    std::string state;

    ASSERT_TRUE(bus.OpenSystemDBus("y"));

    EXPECT_EQ(CountOpenDescriptors(), before);
    std::vector<std::string> lines = LinesOfOpening();
    lines.insert(lines.begin(), "DBus: Close");
    EXPECT_EQ(log.GetTexts(), lines);
    EXPECT_TRUE(bus.GetPropertyString("LoadState", state));
    EXPECT_EQ(state, "loaded");
}

// --- CloseSystemDBus and the destructor ---

TEST(QDSystemDBus, CloseEndsTheConnectionOnceAndKeepsTheLibrary)
{
    const SystemBus system;
    const int before = CountOpenDescriptors();
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    EXPECT_GT(CountOpenDescriptors(), before);
    log.Clear();

    bus.CloseSystemDBus();
    bus.CloseSystemDBus();

    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: Close"));
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(IsSystemdLibraryInMemory());
}

TEST(QDSystemDBus, DestructorClosesAndUnloadsTheLibrary)
{
    const SystemBus system;
    RecordingLog log;
    const int before = CountOpenDescriptors();
    {
        QDSystemDBus bus(&log);
        ASSERT_TRUE(bus.OpenSystemDBus("x"));
        ASSERT_TRUE(IsSystemdLibraryInMemory());
        log.Clear();
    }

    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: Close"));
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_FALSE(IsSystemdLibraryInMemory()) << "(or this libsystemd is linked so that it never leaves memory)";
}

TEST(QDSystemDBus, CallsBeforeTheFirstOpenFailAndSaySo)
{
    RecordingLog log;
    QDSystemDBus bus(&log);
    std::string state = "before";

    EXPECT_FALSE(bus.GetPropertyString("LoadState", state));
    EXPECT_FALSE(bus.CallMethod("StartUnit"));
    bus.CloseSystemDBus();

    EXPECT_EQ(state, "before");
    EXPECT_THAT(log.GetTexts(),
                ElementsAre("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/', 'LoadState' ) "
                            "returns the bus is not open",
                            "DBus: Unit '', call method 'StartUnit'",
                            "DBus: sd_bus_call_method( Unit '', Method 'StartUnit' ) returns: the bus is not open"));
}

TEST(QDSystemDBus, CallsAfterTheCloseFailAndSaySo)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    bus.CloseSystemDBus();
    log.Clear();
    std::string state = "before";

    EXPECT_FALSE(bus.GetPropertyString("LoadState", state));
    EXPECT_FALSE(bus.CallMethod("StartUnit"));

    EXPECT_EQ(state, "before");
    EXPECT_THAT(
        log.GetTexts(),
        ElementsAre("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', 'LoadState' ) "
                    "returns the bus is not open",
                    "DBus: Unit 'x.service', call method 'StartUnit'",
                    "DBus: sd_bus_call_method( Unit 'x.service', Method 'StartUnit' ) returns: the bus is not open"));
    EXPECT_EQ(systemd.GetRequests(), "");
}

TEST(QDSystemDBus, NullLogPrintsNothing)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    QDSystemDBus bus(nullptr);
    std::string state;

    EXPECT_TRUE(bus.OpenSystemDBus("x"));
    EXPECT_TRUE(bus.GetPropertyString("LoadState", state));

    EXPECT_EQ(state, "loaded");
}

// --- GetPropertyString ---

TEST(QDSystemDBus, PropertiesOfAKnownUnit)
{
    const SystemBus system;
    const SystemdStandIn systemd({"quendrel-scada.service=active"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("quendrel-scada"));
    log.Clear();
    std::string loaded;
    std::string active;

    EXPECT_TRUE(bus.GetPropertyString("LoadState", loaded));
    EXPECT_TRUE(bus.GetPropertyString("ActiveState", active));

    EXPECT_EQ(loaded, "loaded");
    EXPECT_EQ(active, "active");
    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: quendrel-scada.service, LoadState = loaded",
                                            "DBus: quendrel-scada.service, ActiveState = active"));
    EXPECT_EQ(systemd.GetRequests(), "Get /org/freedesktop/systemd1/unit/quendrel_2Dscada_2Eservice LoadState\n"
                                     "Get /org/freedesktop/systemd1/unit/quendrel_2Dscada_2Eservice ActiveState\n");
}

TEST(QDSystemDBus, UnknownUnitIsNotFound)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("other"));
    std::string state;

    EXPECT_TRUE(bus.GetPropertyString("LoadState", state));

    EXPECT_EQ(state, "not-found");
    EXPECT_TRUE(log.Has("DBus: other.service, LoadState = not-found"));
}

TEST(QDSystemDBus, UnitPathEscapesAllButLettersAndDigitsOfAscii)
{
    const SystemBus system;
    const SystemdStandIn systemd({"a.b-c_d@1.service", "gr\xC3\xBCn.service", "azAZ09:/.service"});

    struct Case
    {
        const char* m_Service;
        const char* m_Path;
    };

    const Case cases[] = {
        {"a.b-c_d@1", "a_2Eb_2Dc_5Fd_401_2Eservice"},
        {"gr\xC3\xBCn", "gr_C3_BCn_2Eservice"},
        {"azAZ09:/", "azAZ09_3A_2F_2Eservice"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Service);
        RecordingLog log;
        QDSystemDBus bus(&log);
        ASSERT_TRUE(bus.OpenSystemDBus(c.m_Service));
        std::string state;

        EXPECT_TRUE(bus.GetPropertyString("LoadState", state));

        EXPECT_EQ(state, "loaded"); // the bus library's own decoder led back to the name
        EXPECT_THAT(systemd.GetRequests(),
                    EndsWith("Get /org/freedesktop/systemd1/unit/" + std::string(c.m_Path) + " LoadState\n"));
    }
}

TEST(QDSystemDBus, EveryByteOfAServiceNameIsEscapedAlike)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    std::string name;
    for (int byte = 1; byte < 256; ++byte)
        name += static_cast<char>(static_cast<unsigned char>(byte));
    ASSERT_TRUE(bus.OpenSystemDBus(name.c_str()));
    std::string state;

    EXPECT_TRUE(bus.GetPropertyString("LoadState", state));

    std::string path;
    const std::string plain = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (int byte = 1; byte < 256; ++byte) {
        const char character = static_cast<char>(static_cast<unsigned char>(byte));
        if (plain.find(character) != std::string::npos) {
            path += character;
        } else {
            path += '_';
            path += "0123456789ABCDEF"[byte / 16];
            path += "0123456789ABCDEF"[byte % 16];
        }
    }
    EXPECT_EQ(systemd.GetRequests(), "Get /org/freedesktop/systemd1/unit/" + path + "_2Eservice LoadState\n");
}

TEST(QDSystemDBus, FailedPropertyLeavesTheValueAndLogsPathAndText)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x-y.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x-y"));
    log.Clear();
    std::string value = "before";

    EXPECT_FALSE(bus.GetPropertyString("NoSuch", value));

    EXPECT_EQ(value, "before");
    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/"
                                            "x_2Dy_2Eservice', 'NoSuch' ) returns Unknown property NoSuch"));
}

TEST(QDSystemDBus, PropertyThatIsNoTextFails)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    log.Clear();
    std::string value = "before";

    EXPECT_FALSE(bus.GetPropertyString("JobTimeoutUSec", value));

    EXPECT_EQ(value, "before");
    EXPECT_THAT(log.GetTexts(),
                ElementsAre("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', "
                            "'JobTimeoutUSec' ) returns No such device or address"));
}

// --- CallMethod ---

TEST(QDSystemDBus, MethodsArriveWithUnitAndMode)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    log.Clear();

    EXPECT_TRUE(bus.CallMethod("StartUnit"));
    EXPECT_TRUE(bus.CallMethod("StopUnit"));

    EXPECT_EQ(systemd.GetRequests(), "StartUnit x.service replace\nStopUnit x.service replace\n");
    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: Unit 'x.service', call method 'StartUnit'",
                                            "DBus: Unit 'x.service', call method 'StopUnit'"));
}

TEST(QDSystemDBus, RefusedMethodsLogTheManagersText)
{
    const SystemBus system;
    const SystemdStandIn systemd({"refused.service=refused", "x.service"});

    struct Case
    {
        const char* m_Service;
        const char* m_Method;
        const char* m_Text; // how it begins
    };

    const Case cases[] = {
        {"refused", "StartUnit", "Permission denied"},
        {"none", "StopUnit", "Unit none.service not found."},
        {"x", "NoSuch", "Unknown method NoSuch"},  // by the bus library of the stand-in
        {"\xFF", "StartUnit", "Invalid argument"}, // no text that the bus would carry
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Text);
        RecordingLog log;
        QDSystemDBus bus(&log);
        ASSERT_TRUE(bus.OpenSystemDBus(c.m_Service));
        log.Clear();

        EXPECT_FALSE(bus.CallMethod(c.m_Method));

        const std::string unit = std::string(c.m_Service) + ".service";
        EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: Unit '" + unit + "', call method '" + c.m_Method + "'",
                                                StartsWith("DBus: sd_bus_call_method( Unit '" + unit + "', Method '" +
                                                           c.m_Method + "' ) returns: " + c.m_Text)));
    }
}

// --- Failing partners ---

TEST(QDSystemDBus, ManagerThatGoesFailsTheCalls)
{
    const SystemBus system;
    SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    std::string value = "before";
    systemd.Stop();
    log.Clear();

    // The daemon sees it go a moment later; until then it says that there is no reply.
    EXPECT_FALSE(bus.GetPropertyString("LoadState", value));
    EXPECT_FALSE(bus.CallMethod("StartUnit"));

    EXPECT_EQ(value, "before");
    EXPECT_THAT(
        log.GetTexts(),
        ElementsAre(StartsWith("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', "
                               "'LoadState' ) returns "),
                    "DBus: Unit 'x.service', call method 'StartUnit'",
                    AllOf(StartsWith("DBus: sd_bus_call_method( Unit 'x.service', Method 'StartUnit' ) returns: "),
                          HasSubstr("org.freedesktop.systemd1"))));
}

TEST(QDSystemDBus, BusThatGoesFailsTheCallsAndCanStillBeClosed)
{
    SystemBus system;
    RecordingLog log;
    QDSystemDBus bus(&log);
    ASSERT_TRUE(bus.OpenSystemDBus("x"));
    std::string value = "before";
    system.Stop();
    log.Clear();

    EXPECT_FALSE(bus.GetPropertyString("LoadState", value));
    EXPECT_FALSE(bus.CallMethod("StartUnit"));
    bus.CloseSystemDBus();

    EXPECT_EQ(value, "before");
    EXPECT_THAT(log.GetTexts(),
                ElementsAre(StartsWith("DBus: sd_bus_get_property_string( "
                                       "'/org/freedesktop/systemd1/unit/x_2Eservice', 'LoadState' ) returns "),
                            "DBus: Unit 'x.service', call method 'StartUnit'",
                            StartsWith("DBus: sd_bus_call_method( Unit 'x.service', Method 'StartUnit' ) "
                                       "returns: "),
                            "DBus: Close"));
    EXPECT_FALSE(bus.OpenSystemDBus("x"));
}

// A library that tells each call. Of its two failures the first has no text, so that the system's stands in for it; the
// second's text is gone when the error is freed.
TEST(QDSystemDBus, FailedCallsFreeTheErrorAndTheReplyAfterTheLog)
{
    const StubLibrary library(SYSTEMD_STUB_FAILS);

    const std::string output = library.Run({"open", "start", "close"});

    const std::string failedProperty =
        "(get_property_string org.freedesktop.systemd1 /org/freedesktop/systemd1/unit/x_2Eservice "
        "org.freedesktop.systemd1.Unit %s zeroed)\n"
        "DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', '%s' ) returns "
        "Input/output error\n"
        "(error_free)\n";
    std::string expected = "(open_system)\n";
    for (const char* property : {"LoadState", "ActiveState"}) {
        char text[512];
        std::snprintf(text, sizeof text, failedProperty.c_str(), property, property);
        expected += text;
    }
    expected += "open: true, kind 2, not installed, not running\n"
                "DBus: Unit 'x.service', call method 'StartUnit'\n"
                "(call_method org.freedesktop.systemd1 /org/freedesktop/systemd1 org.freedesktop.systemd1.Manager "
                "StartUnit zeroed ss x.service replace)\n"
                "DBus: sd_bus_call_method( Unit 'x.service', Method 'StartUnit' ) returns: No such thing\n"
                "(error_free)\n"
                "(message_unref reply)\n"
                "start: false, kind 2, not installed, not running\n"
                "DBus: Close\n"
                "(flush_close_unref)\n"
                "close: true, kind 2, not installed, not running\n";
    EXPECT_EQ(BehindLookUp(output), expected);
}

// The same library where all succeeds, with a result above 0.
TEST(QDSystemDBus, CallsThatSucceedFreeTheErrorAndTheReplyToo)
{
    const StubLibrary library(SYSTEMD_STUB_SUCCEEDS);

    const std::string output = library.Run({"open", "start", "close"});

    EXPECT_EQ(BehindLookUp(output),
              "(open_system)\n"
              "(get_property_string org.freedesktop.systemd1 /org/freedesktop/systemd1/unit/x_2Eservice "
              "org.freedesktop.systemd1.Unit LoadState zeroed)\n"
              "(error_free)\n"
              "DBus: x.service, LoadState = loaded\n"
              "(get_property_string org.freedesktop.systemd1 /org/freedesktop/systemd1/unit/x_2Eservice "
              "org.freedesktop.systemd1.Unit ActiveState zeroed)\n"
              "(error_free)\n"
              "DBus: x.service, ActiveState = loaded\n"
              "open: true, kind 2, installed, not running\n"
              "DBus: Unit 'x.service', call method 'StartUnit'\n"
              "(call_method org.freedesktop.systemd1 /org/freedesktop/systemd1 org.freedesktop.systemd1.Manager "
              "StartUnit zeroed ss x.service replace)\n"
              "(error_free)\n"
              "(message_unref reply)\n"
              "start: true, kind 2, installed, running\n"
              "DBus: Close\n"
              "(flush_close_unref)\n"
              "close: true, kind 2, installed, running\n");
}
