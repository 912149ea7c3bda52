#pragma once

#include <QDPlatform/QDExport.h>

#include <string>

class CTextOutput;

// What the server's start-up tells of the host: its name, its operating system and what its C library can do.
//
// Everything is gathered by the constructor and stays as it was. All text is as the system gives it, as a rule ASCII.
// Thread: any, after construction.
class QD_API CQDHostInformation
{
public:
    // Reads the host name and three files under /proc. Never fails: a part that cannot be read holds a text that says
    // so instead ("gethostame() errno %d"; "Read '%s' failed" with the file's path).
    CQDHostInformation();
    CQDHostInformation(const CQDHostInformation&) = default;
    CQDHostInformation& operator=(const CQDHostInformation&) = default;

    // The name as gethostname(2) gives it, at most 255 bytes.
    const std::string& GetHostName() const;

    // How many lines describe the operating system: 4.
    int GetOSInformationCount() const;

    // Line `index`, from 0 to GetOSInformationCount() - 1, which is not checked. The lines are
    //   0 to 2: the kernel's type ("Linux"), release and version, each cut to 80 bytes, then rid of white space at the
    //           end;
    //   3:      the word size, "32 Bit OS" in every build.
    const std::string& GetOSInformation(int index) const;

    // Sets `text` to all lines in their order, with ", " between them.
    void GetAllOSInformation(std::string& text) const;

    // Prints the line "Host Information:" and then each line of the operating system behind a TAB, one PrintLine()
    // each. The host name is not printed.
    void PrintHostInformation(CTextOutput& out) const;

    // Fixed answers of this platform: true.
    bool SupportsIPVersion6() const;
    bool PrintfRoundingUsesHalfEven() const;
    bool SupportsCountryOnlyLocales() const;

private:
    static constexpr int kMaxOSInformation = 4;

    std::string m_HostName;
    std::string m_OSInformation[kMaxOSInformation];
    int m_OSInformationCount{0};
};
