#pragma once

#include <QDPlatform/QDDynamicLib.h>
#include <QDPlatform/QDExport.h>

#include <string>

class COutputLog;
struct sd_bus;

// Asks the systemd manager about one unit and has it started and stopped, over the system's D-Bus.
//
// Nothing links to libsystemd: it is loaded when the bus is opened, so that the library runs on hosts without it. The
// bus is that of DBUS_SYSTEM_BUS_ADDRESS when this variable is set, else the system's.
//
// Log:     each line is of type Info, "DBus: " and the text given here, cut as COutputLog::PrefixedPrintVA() does. With
//          a null log nothing is printed.
//
// Thread:  one at a time, the same one from OpenSystemDBus() to CloseSystemDBus(). GetPropertyString() and
//          CallMethod() wait for the answer, 25 s at most unless SYSTEMD_BUS_TIMEOUT says otherwise.
//
// Owns:    libsystemd and the connection. `log` must outlive this object. Texts that are passed must not be null.
class QD_API QDSystemDBus
{
public:
    // Closed; nothing is loaded.
    explicit QDSystemDBus(COutputLog* log);
    QDSystemDBus(const QDSystemDBus&) = delete;
    QDSystemDBus& operator=(const QDSystemDBus&) = delete;

    // Closes the bus and unloads libsystemd.
    ~QDSystemDBus();

    // Closes the bus that is open, if any; loads "libsystemd.so" or else "libsystemd.so.0"; looks up nine of its
    // functions; connects. All later calls are about the unit `serviceName` with ".service" appended.
    //
    // Returns true when the bus's socket took the connection: a bus that turns this user away shows in the first call.
    // False leaves it closed: without the library, without one of the functions, and when nobody listens there, which
    // alone is not logged.
    //
    // Logs "Find libsystemd...", then "...failed: %s" with the loader's text when the library is missing, else "Locate
    // systemd functions...", and for each function "%s() found at %p" with its name and address, null when it is
    // missing; a missing one has a line "Find %s() returns: %s" with the loader's text before that.
    bool OpenSystemDBus(const char* serviceName);

    // Logs "Close", sends what waits to be sent and closes the connection. libsystemd stays loaded. Nothing happens
    // when the bus is not open.
    void CloseSystemDBus();

    // Reads a text property of the unit, such as "LoadState" or "ActiveState". A unit that systemd does not know has
    // properties too: its LoadState is "not-found".
    //
    // Returns true and sets `value`, and logs "%s, %s = %s" with the unit's name, the property and the value. False
    // leaves `value` as it was and logs "sd_bus_get_property_string( '%s', '%s' ) returns %s" with the unit's object
    // path, the property and the text of the error, which is "the bus is not open" when it is not.
    bool GetPropertyString(const char* property, std::string& value);

    // Calls a method of the manager that takes a unit and a mode, such as "StartUnit", with this unit and "replace".
    // The manager answers when it has queued the job: the unit's state follows later.
    //
    // Logs "Unit '%s', call method '%s'" and returns true when the manager accepted. Else it logs
    // "sd_bus_call_method( Unit '%s', Method '%s' ) returns: %s" as well, with the text of the error, which is "the bus
    // is not open" when it is not, and returns false.
    bool CallMethod(const char* method);

private:
    static constexpr int kFunctionCount = 9;

    QD_LOCAL bool FindSystemDAPI();
    QD_LOCAL bool FindSystemDFunctions();
    QD_LOCAL void* FindSystemDFunction(const char* name);
    QD_LOCAL std::string GetUnitObjectPath() const;
    QD_LOCAL void PrintLog(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    COutputLog* const m_pOutputLog; // not owned, may be null
    QDDynamicLib m_SystemD;
    // In the order of the source's table. Null until located, and stale after an opening that failed.
    void* m_Functions[kFunctionCount]{};
    bool m_AllFunctionsFound{true};
    sd_bus* m_pBus{nullptr}; // null when closed
    std::string m_UnitName;  // the service's name and ".service"; empty until the first connection was tried
};
