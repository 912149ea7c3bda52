#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDString.h>

#include <dirent.h>

#include <cstdint>
#include <list>
#include <string>

class CTextOutput;

// Lists the serial ports of the host, such as "/dev/ttyS0" and "/dev/ttyUSB0", one after the other.
//
//     QDEnumerateSerialPorts ports;
//     for (const qdchar* port = ports.FirstPort(); port != nullptr; port = ports.NextPort())
//         names.push_back(port);
//
// A port is an entry of /dev, of whatever kind, whose name begins with "tty" and with the name of a serial driver's
// devices ("ttyS", "ttyUSB"). /proc/tty/drivers tells the drivers: each line has five fields between white space, and
// counts when the fifth is "serial" and the second begins with "/dev/". So "ttyS" itself is a port, and "tty0" only
// where the name of a serial driver's devices is a beginning of it. Whether hardware stands behind a port is not looked
// at. Ports come in the order of the file system, unsorted. Nothing is logged.
//
// Memory: every FirstPort() adds the serial drivers that it reads to those held, and frees none of them; make a new
//         object to list ports again and again. May throw std::bad_alloc; nothing else fails but as the operations say.
// Thread: one at a time.
// Owns:   one descriptor, close-on-exec, from a FirstPort() that opened /dev until the end of the walk, the next
//         FirstPort() or the destructor.
class QD_API QDEnumerateSerialPorts
{
public:
    // No walk, no drivers, no name.
    QDEnumerateSerialPorts();
    QDEnumerateSerialPorts(const QDEnumerateSerialPorts&) = delete;
    QDEnumerateSerialPorts& operator=(const QDEnumerateSerialPorts&) = delete;
    ~QDEnumerateSerialPorts();

    // Ends the walk under way, reads the drivers again, and starts a walk at the beginning of /dev. Returns the first
    // port's path; null when there is none, and when /proc/tty/drivers or /dev cannot be opened, which is not told
    // apart. A call of the system that a signal interrupts has failed: it is not repeated.
    //
    // Of the drivers file at most 511 bytes of the first line and 255 of every other are taken for one line, the rest
    // of a longer one for a line of its own. Kept so; see RestOfALongLineIsALineOfItsOwn. The drivers read are added to
    // those of earlier walks, which count as well. Kept so; see EveryFirstPortAddsTheDriversOnceMore.
    //
    // A path is "/dev/" and at most 58 bytes of the entry's name, which is taken as UTF-8 but not checked; a longer
    // name is cut, possibly inside a UTF-8 sequence. It lies in this object, and the next call overwrites it.
    const qdchar* FirstPort();

    // Returns the next port's path, as FirstPort() does; null at the end of /dev and when it cannot be read further,
    // which ends the walk, and when there is no walk.
    const qdchar* NextPort();

    // Prints the state for a developer to look at, one level further in from the second line on: the title
    // "QDEnumerateSerialPorts state:"; "/proc/tty/devices:", which is not the file's name but kept so, and below it one
    // line "Driver serial, Device /dev/ttyS, Type serial" for each driver held; "m_pDirectorySearch %p";
    // "m_CurrentName '%s'" with the path found last; and "calls to readdir() = %d" with the entries of /dev that the
    // walk has asked for so far, the end of /dev included. Both are those of the last walk and stay when it ends and
    // when another cannot start.
    void DumpState(CTextOutput& out) const;

private:
    // One line of /proc/tty/drivers.
    struct ProcTTYDriverEntry
    {
        std::string m_DriverName;
        std::string m_DeviceNode; // such as "/dev/ttyS"
        std::string m_MajorNumber;
        std::string m_MinorRange;
        std::string m_DriverType; // such as "serial"
    };

    QD_LOCAL bool ParseProcTTYDrivers();
    QD_LOCAL void ParseProcTTYDriversLine(const char* line);
    QD_LOCAL bool LinuxIsDeviceSerial(const char* name) const;
    QD_LOCAL void EndSearch();

    std::list<ProcTTYDriverEntry> m_Drivers;                  // the serial ones
    std::list<ProcTTYDriverEntry>::iterator m_DriverPosition; // the first, once read; nothing goes by it
    DIR* m_pDirectorySearch{nullptr};                         // null when no walk is under way
    int32_t m_ReadDirCallCount{0};                            // of the last walk
    qdchar m_CurrentName[64] = {};
};
