// Stands in for the systemd manager on a bus of the test's own: answers for the properties of units, starts and stops
// them at once.
//
//   systemd-stand-in UNIT[=STATE]...
//
// UNIT is a whole name ("x.service"), STATE its ActiveState ("inactive" when there is none), or LOADSTATE/ACTIVESTATE;
// a LoadState that is not given is "loaded". Who asks for a state "denied" gets an error, for one "silent" no answer.
// "refused" makes starting and stopping the unit an error. Prints "ready" when it can be asked, and then each request:
// "StartUnit NAME MODE" or "Get PATH PROPERTY". Ends when the bus goes.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace
{

using Units = std::map<std::string, std::string>; // name and state

constexpr char kManager[] = "org.freedesktop.systemd1";
constexpr char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr char kManagerInterface[] = "org.freedesktop.systemd1.Manager";

int AnswerProperty(sd_bus_message* request, const Units& units)
{
    const char* interface = nullptr;
    const char* property = nullptr;
    char* decoded = nullptr;
    const char* const path = sd_bus_message_get_path(request);
    const int result = sd_bus_message_read(request, "ss", &interface, &property);
    if (result < 0)
        return result;
    std::printf("Get %s %s\n", path, property);
    if (std::string(interface) != "org.freedesktop.systemd1.Unit" ||
        sd_bus_path_decode(path, "/org/freedesktop/systemd1/unit", &decoded) <= 0)
        return sd_bus_reply_method_errorf(request, SD_BUS_ERROR_UNKNOWN_INTERFACE, "Not a unit");
    const std::string name = decoded;
    std::free(decoded);
    const auto unit = units.find(name);
    const std::string states = unit != units.end() ? unit->second : "not-found/inactive";
    const std::size_t slash = states.find('/');
    std::string state;
    if (std::strcmp(property, "LoadState") == 0)
        state = slash == std::string::npos ? "loaded" : states.substr(0, slash);
    else if (std::strcmp(property, "ActiveState") == 0)
        state = slash == std::string::npos ? states : states.substr(slash + 1);
    else if (std::strcmp(property, "JobTimeoutUSec") == 0)
        return sd_bus_reply_method_return(request, "v", "t", UINT64_C(5));
    else
        return sd_bus_reply_method_errorf(request, SD_BUS_ERROR_UNKNOWN_PROPERTY, "Unknown property %s", property);
    if (state == "denied")
        return sd_bus_reply_method_errorf(request, SD_BUS_ERROR_ACCESS_DENIED, "Permission denied");
    if (state == "silent")
        return 1; // taken
    return sd_bus_reply_method_return(request, "v", "s", state.c_str());
}

int AnswerJob(sd_bus_message* request, Units& units)
{
    const char* name = nullptr;
    const char* mode = nullptr;
    const int result = sd_bus_message_read(request, "ss", &name, &mode);
    if (result < 0)
        return result;
    const std::string method = sd_bus_message_get_member(request);
    std::printf("%s %s %s\n", method.c_str(), name, mode);
    const auto unit = units.find(name);
    if (unit == units.end())
        return sd_bus_reply_method_errorf(request, "org.freedesktop.systemd1.NoSuchUnit", "Unit %s not found.", name);
    if (unit->second == "refused")
        return sd_bus_reply_method_errorf(request, SD_BUS_ERROR_ACCESS_DENIED, "Permission denied");
    unit->second = method == "StartUnit" ? "active" : "inactive";
    return sd_bus_reply_method_return(request, "o", "/org/freedesktop/systemd1/job/1");
}

int Answer(sd_bus_message* request, void* units, sd_bus_error*)
{
    Units& known = *static_cast<Units*>(units);
    if (sd_bus_message_is_method_call(request, "org.freedesktop.DBus.Properties", "Get") > 0)
        return AnswerProperty(request, known);
    if (std::strcmp(sd_bus_message_get_path(request), kManagerPath) == 0 &&
        (sd_bus_message_is_method_call(request, kManagerInterface, "StartUnit") > 0 ||
         sd_bus_message_is_method_call(request, kManagerInterface, "StopUnit") > 0))
        return AnswerJob(request, known);
    return 0; // the bus library refuses it
}

} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Units units;
    for (int i = 1; i < argc; ++i) {
        const std::string unit = argv[i];
        const std::size_t end = unit.find('=');
        units[unit.substr(0, end)] = end == std::string::npos ? "inactive" : unit.substr(end + 1);
    }
    sd_bus* bus = nullptr;
    int result = sd_bus_open_system(&bus);
    if (result >= 0)
        result = sd_bus_add_fallback(bus, nullptr, kManagerPath, &Answer, &units);
    if (result >= 0)
        result = sd_bus_request_name(bus, kManager, 0);
    if (result >= 0)
        std::puts("ready");
    while (result >= 0) {
        result = sd_bus_process(bus, nullptr);
        if (result == 0)
            result = sd_bus_wait(bus, UINT64_MAX);
    }
    std::fprintf(stderr, "systemd-stand-in: %s\n", std::strerror(-result));
    sd_bus_unref(bus);
    return 1;
}
