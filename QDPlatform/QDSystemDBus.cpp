#include <QDPlatform/QDSystemDBus.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDFormatMessage.h>
#include <QDPlatform/QDString.h>

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cstdarg>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace
{

constexpr char kLogPrefix[] = "DBus";
constexpr unsigned kLogPrefixLength = 4;
constexpr char kManagerName[] = "org.freedesktop.systemd1";
constexpr char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr char kManagerInterface[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Unit";
constexpr char kUnitPathStart[] = "/org/freedesktop/systemd1/unit/";

constexpr char kPropertyFailure[] = "sd_bus_get_property_string( '%s', '%s' ) returns %s";
constexpr char kMethodFailure[] = "sd_bus_call_method( Unit '%s', Method '%s' ) returns: %s";
constexpr char kNotOpen[] = "the bus is not open";

// The functions in the order of kFunctionNames.
enum Function : int
{
    FunctionDefaultSystem,
    FunctionOpenSystem,
    FunctionFlushCloseUnref,
    FunctionClose,
    FunctionUnref,
    FunctionGetPropertyString,
    FunctionCallMethod,
    FunctionErrorFree,
    FunctionMessageUnref
};

constexpr char kFunctionNames[][32] = {
    "sd_bus_default_system", "sd_bus_open_system", "sd_bus_flush_close_unref",
    "sd_bus_close",          "sd_bus_unref",       "sd_bus_get_property_string",
    "sd_bus_call_method",    "sd_bus_error_free",  "sd_bus_message_unref",
};

// A located function with the type that its header declares.
template<class Type>
Type* As(void* function)
{
    return reinterpret_cast<Type*>(function);
}

// The bytes that D-Bus takes in a path. isalnum() is deliberately not asked: in a locale of 8-bit characters it takes
// others too.
bool IsAsciiLetterOrDigit(unsigned char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// The text of a failed call: what the bus told, else the system's for the negative errno that the call returned.
std::string GetErrorText(const sd_bus_error& error, int result)
{
    if (error.message != nullptr)
        return error.message;
    char text[256];
    QDFormatMessage(-result, text, sizeof text);
    return text;
}

} // namespace

QDSystemDBus::QDSystemDBus(COutputLog* log) : m_pOutputLog(log) {}

// Without its library the connection could never be closed, so it goes first; likewise before an opening.
QDSystemDBus::~QDSystemDBus()
{
    CloseSystemDBus();
    m_SystemD.UnloadLibrary();
}

bool QDSystemDBus::OpenSystemDBus(const char* serviceName)
{
    CloseSystemDBus();
    if (!FindSystemDAPI())
        return false;
    sd_bus* bus = nullptr;
    const bool isOpen = As<decltype(::sd_bus_open_system)>(m_Functions[FunctionOpenSystem])(&bus) >= 0;
    m_UnitName.assign(serviceName).append(".service");
    m_pBus = isOpen ? bus : nullptr;
    return isOpen;
}

void QDSystemDBus::CloseSystemDBus()
{
    if (m_pBus == nullptr)
        return;
    PrintLog("Close");
    As<decltype(::sd_bus_flush_close_unref)>(m_Functions[FunctionFlushCloseUnref])(std::exchange(m_pBus, nullptr));
}

bool QDSystemDBus::GetPropertyString(const char* property, std::string& value)
{
    const std::string path = GetUnitObjectPath();
    if (m_pBus == nullptr) { // the functions may not be there
        PrintLog(kPropertyFailure, path.c_str(), property, kNotOpen);
        return false;
    }
    sd_bus_error error{};
    char* text = nullptr;
    const int result = As<decltype(::sd_bus_get_property_string)>(m_Functions[FunctionGetPropertyString])(
        m_pBus, kManagerName, path.c_str(), kUnitInterface, property, &error, &text);
    if (result < 0)
        PrintLog(kPropertyFailure, path.c_str(), property, GetErrorText(error, result).c_str());
    As<decltype(::sd_bus_error_free)>(m_Functions[FunctionErrorFree])(&error);
    if (result < 0)
        return false;
    value = text;
    std::free(text);
    PrintLog("%s, %s = %s", m_UnitName.c_str(), property, value.c_str());
    return true;
}

bool QDSystemDBus::CallMethod(const char* method)
{
    PrintLog("Unit '%s', call method '%s'", m_UnitName.c_str(), method);
    if (m_pBus == nullptr) {
        PrintLog(kMethodFailure, m_UnitName.c_str(), method, kNotOpen);
        return false;
    }
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int result = As<decltype(::sd_bus_call_method)>(m_Functions[FunctionCallMethod])(
        m_pBus, kManagerName, kManagerPath, kManagerInterface, method, &error, &reply, "ss", m_UnitName.c_str(),
        "replace");
    if (result < 0)
        PrintLog(kMethodFailure, m_UnitName.c_str(), method, GetErrorText(error, result).c_str());
    As<decltype(::sd_bus_error_free)>(m_Functions[FunctionErrorFree])(&error);
    As<decltype(::sd_bus_message_unref)>(m_Functions[FunctionMessageUnref])(reply);
    return result >= 0;
}

bool QDSystemDBus::FindSystemDAPI()
{
    PrintLog("Find libsystemd...");
    char error[256];
    if (!m_SystemD.LoadOSLibrary("systemd", 0, error, sizeof error)) {
        PrintLog("...failed: %s", error);
        return false;
    }
    return FindSystemDFunctions();
}

bool QDSystemDBus::FindSystemDFunctions()
{
    static_assert(std::size(kFunctionNames) == kFunctionCount);
    PrintLog("Locate systemd functions...");
    m_AllFunctionsFound = true;
    for (int i = 0; i < kFunctionCount; ++i)
        m_Functions[i] = FindSystemDFunction(kFunctionNames[i]);
    return m_AllFunctionsFound;
}

void* QDSystemDBus::FindSystemDFunction(const char* name)
{
    void* const function = m_SystemD.FindFunction(name);
    if (function == nullptr) {
        const char* const error = ::dlerror(); // null for a symbol that is there with the address null
        PrintLog("Find %s() returns: %s", name, error != nullptr ? error : "null");
        m_AllFunctionsFound = false;
    }
    PrintLog("%s() found at %p", name, function);
    return function;
}

// D-Bus allows letters, digits and "_" in a path; "_" itself marks an escape.
std::string QDSystemDBus::GetUnitObjectPath() const
{
    std::string path = kUnitPathStart;
    for (const char character : m_UnitName) {
        const unsigned char byte = static_cast<unsigned char>(character);
        if (IsAsciiLetterOrDigit(byte)) {
            path += character;
        } else {
            char escape[4];
            qd_sprintf(escape, sizeof escape, "_%02X", byte);
            path += escape;
        }
    }
    return path;
}

void QDSystemDBus::PrintLog(const char* format, ...)
{
    if (m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintInfoVA(kLogPrefix, kLogPrefixLength, format, arguments);
    va_end(arguments);
}
