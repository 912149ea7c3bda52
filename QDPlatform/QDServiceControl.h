#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDSystemDBus.h>

#include <string>

class COutputLog;

// Asks after the server's own system service, starts, stops and removes it: through systemd, or else its init script.
//
//     QDServiceControl service("quendrel-scada", log);
//     service.OpenServiceControl(true);
//     if (service.IsInstalled() && !service.IsRunning())
//         service.ServiceStart();
//     service.CloseServiceControl();
//
// Log:     each line is of type Info, "SvcControl: " and the text given here, cut as COutputLog::PrefixedPrintVA()
//          does; the lines of QDSystemDBus come between. With a null log nothing is printed.
//
// Thread:  one at a time, as QDSystemDBus. The commands are run with system(), which waits for them, ignores SIGINT
//          and SIGQUIT in the meantime and blocks SIGCHLD.
//
// Owns:    its connection to the bus. `log` must outlive this object.
class QD_API QDServiceControl
{
public:
    // How the service is reached.
    enum ControlKind : int
    {
        ServiceControlNone = 0, // not opened yet; start, stop and remove then go the way of the init script
        ServiceControlSystemD = 2,
        ServiceControlInitScript = 3
    };

    // Not opened; neither installed nor running. serviceName: the unit's name without ".service"; not null. It counts
    // for systemd alone: the commands of the init script name the service quendrel-scada in any case.
    QDServiceControl(const char* serviceName, COutputLog* log);
    QDServiceControl(const QDServiceControl&) = delete;
    QDServiceControl& operator=(const QDServiceControl&) = delete;

    // Closes the bus.
    ~QDServiceControl();

    // Decides between systemd and the init script, and sees what state the service is in. Always returns true. The
    // argument is not looked at. A bus that is still open is closed first.
    //
    // Where the bus can be opened, the service counts as installed when the unit's LoadState is "loaded", and as
    // running when its ActiveState is "active"; any other answer, and none, leaves the flag as it was. That is systemd
    // even where the bus then turns this user away. Where it cannot, the service is taken as installed and running,
    // since there is nobody to ask.
    bool OpenServiceControl(bool unused);

    // Closes the bus, if it is open. The kind and the flags stay.
    void CloseServiceControl();

    // Starts the service.
    // Under systemd: "StartUnit" for the unit. True when the manager accepted; the service then counts as running.
    // Else runs "/etc/init.d/quendrel-scada start" with system(). Logs "Running command: %s" before and "Result = %d"
    // behind, with what system() returned: not the exit status but the wait status, 768 for exit(3), and -1 when no
    // process could be made. The service then counts as running even when the script failed. True when the result is 0.
    bool ServiceStart();

    // Stops the service: "StopUnit", or "/etc/init.d/quendrel-scada stop", as for the start. The service then counts as
    // not running, unless systemd refused.
    bool ServiceStop();

    // Takes the service out of the system's start-up: runs "update-rc.d quendrel-scada remove" as ServiceStart() runs
    // its command. The service then counts as neither installed nor running, whatever the result. Under systemd logs
    // "...ServiceRemove not implemented for SystemD", changes nothing and returns true.
    bool ServiceRemove();

    // What this object knows of the service, which others may have changed since.
    bool IsInstalled() const;
    bool IsRunning() const;

    // A ControlKind.
    int GetControlKind() const;

    // Prints a line behind the prefix. format: as printf() takes it.
    void PrintLog(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

private:
    QD_LOCAL bool RunCommand(const char* command);

    const std::string m_ServiceName;
    COutputLog* const m_pOutputLog; // not owned, may be null
    QDSystemDBus m_Bus;
    int m_ControlKind{ServiceControlNone};
    bool m_IsInstalled{false};
    bool m_IsRunning{false};
};
