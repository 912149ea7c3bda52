// Does with a service what its arguments say, in their order, and prints each line of the log and each result.
//
//   service-program NAME COMMAND...
//
// COMMAND: open, start, stop, remove or close, as QDServiceControl does them; or "is STATE", which waits up to 20 s for
// the unit's ActiveState to be that one.
#include "WaitUntil.h"

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDServiceControl.h>
#include <QDPlatform/QDSystemDBus.h>

#include <cstdio>
#include <string>

namespace
{

class PrintingLog : public COutputLog
{
public:
    void Clear() override {}

    void AppendMessage(LogType, int, const qdchar* text, unsigned int length) override
    {
        std::printf("%.*s\n", static_cast<int>(length), text);
    }
};

bool AwaitActiveState(const char* name, const char* wanted)
{
    COutputLogNull log;
    QDSystemDBus bus(&log);
    std::string state;
    return bus.OpenSystemDBus(name) &&
           WaitUntil([&] { return bus.GetPropertyString("ActiveState", state) && state == wanted; });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    PrintingLog log;
    QDServiceControl service(argv[1], &log);
    for (int i = 2; i < argc; ++i) {
        const std::string command = argv[i];
        bool result = true;
        if (command == "open")
            result = service.OpenServiceControl(true);
        else if (command == "start")
            result = service.ServiceStart();
        else if (command == "stop")
            result = service.ServiceStop();
        else if (command == "remove")
            result = service.ServiceRemove();
        else if (command == "close")
            service.CloseServiceControl();
        else if (command == "is" && i + 1 < argc)
            result = AwaitActiveState(argv[1], argv[++i]);
        else
            return 2;
        std::printf("%s: %s, kind %d,%s installed,%s running\n", command.c_str(), result ? "true" : "false",
                    service.GetControlKind(), service.IsInstalled() ? "" : " not", service.IsRunning() ? "" : " not");
        std::fflush(stdout); // before a command of the system writes
    }
    return 0;
}
