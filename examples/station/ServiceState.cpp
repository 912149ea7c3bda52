#include "ServiceState.h"

#include <QDPlatform/QDServiceControl.h>

namespace
{

// The two answers are independent: a unit whose file was removed while it ran is running, but not installed. When
// systemd fails to answer, both are false, too.
const char* DescribeUnit(const QDServiceControl& service)
{
    if (service.IsInstalled())
        return service.IsRunning() ? "is installed and running" : "is installed, but not running";
    return service.IsRunning() ? "is running, but not installed" : "is not installed, or systemd does not tell";
}

} // namespace

std::string DescribeService(const std::string& name, COutputLog& log)
{
    QDServiceControl service(name.c_str(), &log);
    service.OpenServiceControl(true);
    const std::string unit = name + ".service";
    // Nobody has been asked then: the service control takes the service as installed and running.
    const std::string text =
        service.GetControlKind() == QDServiceControl::ServiceControlSystemD
            ? "unit " + unit + ' ' + DescribeUnit(service)
            : "no systemd can be asked about " + unit + "; it is assumed that an init script runs the station";
    service.CloseServiceControl();
    return text;
}
