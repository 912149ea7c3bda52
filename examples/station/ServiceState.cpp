#include "ServiceState.h"

#include <QDPlatform/QDServiceControl.h>

namespace
{

// The two answers are independent: a unit whose file was removed while it ran is running, but not installed. A question
// that systemd does not answer counts as no.
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
    // Where nobody could be asked, the service control takes the service as installed and running.
    if (service.GetControlKind() != QDServiceControl::ServiceControlSystemD)
        return "no systemd can be asked about " + unit + "; it counts as run by an init script";
    return "unit " + unit + ' ' + DescribeUnit(service);
}
