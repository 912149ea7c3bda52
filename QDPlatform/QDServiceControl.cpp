#include <QDPlatform/QDServiceControl.h>

#include <QDPlatform/COutputLog.h>

#include <cstdarg>
#include <cstdlib>

namespace
{

constexpr char kLogPrefix[] = "SvcControl";
constexpr unsigned kLogPrefixLength = 10;

} // namespace

QDServiceControl::QDServiceControl(const char* serviceName, COutputLog* log) :
    m_ServiceName(serviceName), m_pOutputLog(log), m_Bus(log)
{}

QDServiceControl::~QDServiceControl() = default;

bool QDServiceControl::OpenServiceControl(bool /*unused*/)
{
    if (!m_Bus.OpenSystemDBus(m_ServiceName.c_str())) {
        m_ControlKind = ServiceControlInitScript;
        m_IsInstalled = true;
        m_IsRunning = true;
        return true;
    }
    m_ControlKind = ServiceControlSystemD;
    std::string state;
    if (m_Bus.GetPropertyString("LoadState", state) && state == "loaded")
        m_IsInstalled = true;
    if (m_Bus.GetPropertyString("ActiveState", state) && state == "active")
        m_IsRunning = true;
    return true;
}

void QDServiceControl::CloseServiceControl()
{
    m_Bus.CloseSystemDBus();
}

bool QDServiceControl::ServiceStart()
{
    if (m_ControlKind == ServiceControlSystemD) {
        const bool isAccepted = m_Bus.CallMethod("StartUnit");
        if (isAccepted)
            m_IsRunning = true;
        return isAccepted;
    }
    const bool isStarted = RunCommand("/etc/init.d/quendrel-scada start");
    m_IsRunning = true;
    return isStarted;
}

bool QDServiceControl::ServiceStop()
{
    if (m_ControlKind == ServiceControlSystemD) {
        const bool isAccepted = m_Bus.CallMethod("StopUnit");
        if (isAccepted)
            m_IsRunning = false;
        return isAccepted;
    }
    const bool isStopped = RunCommand("/etc/init.d/quendrel-scada stop");
    m_IsRunning = false;
    return isStopped;
}

bool QDServiceControl::ServiceRemove()
{
    if (m_ControlKind == ServiceControlSystemD) {
        PrintLog("...ServiceRemove not implemented for SystemD");
        return true;
    }
    const bool isRemoved = RunCommand("update-rc.d quendrel-scada remove");
    m_IsRunning = false;
    m_IsInstalled = false;
    return isRemoved;
}

bool QDServiceControl::IsInstalled() const
{
    return m_IsInstalled;
}

bool QDServiceControl::IsRunning() const
{
    return m_IsRunning;
}

int QDServiceControl::GetControlKind() const
{
    return m_ControlKind;
}

void QDServiceControl::PrintLog(const char* format, ...)
{
    if (m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintInfoVA(kLogPrefix, kLogPrefixLength, format, arguments);
    va_end(arguments);
}

// Returns whether the command ended with status 0.
bool QDServiceControl::RunCommand(const char* command)
{
    PrintLog("Running command: %s", command);
    const int result = std::system(command);
    PrintLog("Result = %d", result);
    return result == 0;
}
