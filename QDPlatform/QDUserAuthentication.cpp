#include <QDPlatform/QDUserAuthentication.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/CTextOutputFile.h>
#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDRandomGenerator.h>
#include <QDPlatform/QDSecureWString.h>
#include <QDPlatform/QDString.h>

#include <dlfcn.h>
#include <security/pam_appl.h>
#include <stdlib.h>
#include <string.h>

#include <cstdarg>
#include <new>
#include <type_traits>
#include <utility>

namespace
{

constexpr char kServiceName[] = "quendrel-scada";
constexpr char kServiceFile[] = "/etc/pam.d/quendrel-scada";
constexpr char kServiceText[] = "# PAM configuration for the Quendrel SCADA Server\n"
                                "\n"
                                "auth         sufficient     pam_ldap.so\n"
                                "auth         include        common-auth\n"
                                "\n"
                                "account      required       pam_nologin.so\n"
                                "account      sufficient     pam_permit.so\n"
                                "account      include        common-account\n"
                                "\n";

constexpr unsigned int kErrorTextSize = 256; // bytes

bool HasNul(const CQDSecureWString& text)
{
    return memchr(text.Get(), '\0', text.Length()) != nullptr;
}

// Sets `copy` to a new array with the terminated text and `length` to the text's; leaves both, null and 0, without
// memory.
void CopyAsUtf8(const CQDSecureWString& text, unsigned char*& copy, uint32_t& length)
{
    const unsigned int needed = qd_utf8len_of_qdchar(text.Get(), text.Length(), text.Length());
    try {
        copy = new unsigned char[size_t{needed} + 1];
    } catch (const std::bad_alloc&) {
        return;
    }
    length = qd_utf8_from_qdchar(text.Get(), text.Length(), copy, needed);
    copy[length] = '\0';
}

// Wipes and releases what CopyAsUtf8() made.
void ClearCopy(unsigned char*& copy, uint32_t& length)
{
    unsigned char* const memory = std::exchange(copy, nullptr);
    if (memory == nullptr)
        return;
    QDRandomGenerator::ClearMemory(memory, std::exchange(length, 0));
    delete[] memory;
}

// Sets both of LinuxAuthenticate()'s outputs. Returns false, its result then.
bool FailWith(int code, const char* text, int& pamError, char* errorText, unsigned int errorSize)
{
    pamError = code;
    if (errorSize != 0) {
        const unsigned int length = qd_qdchar_from_utf8(
            reinterpret_cast<const uint8_t*>(text), static_cast<unsigned int>(strlen(text)), errorText, errorSize - 1);
        errorText[length] = '\0';
    }
    return false;
}

} // namespace

QDUserAuthentication::QDUserAuthentication() = default;

QDUserAuthentication::~QDUserAuthentication()
{
    m_PamLibrary.UnloadLibrary();
}

bool QDUserAuthentication::InitialiseUserAuthentication(COutputLog* log)
{
    // Nulls of the types in PAM's own header: the compiler sees to it that the members have the same.
    m_pPamStart = decltype(&::pam_start){};
    m_pPamAuthenticate = decltype(&::pam_authenticate){};
    m_pPamEnd = decltype(&::pam_end){};
    m_pPamStrError = decltype(&::pam_strerror){};

    log->Print("Find libpam...");
    char error[kErrorTextSize];
    if (!m_PamLibrary.LoadOSLibrary("pam", 0, error, sizeof error)) {
        log->Print("...failed: %s", error);
        return false;
    }
    const bool hasFunctions = FindPamFunctions(log);
    const bool hasFile = GeneratePamConfigurationFile(log);
    return hasFunctions && hasFile;
}

bool QDUserAuthentication::LinuxAuthenticate(const CQDSecureWString& user, const CQDSecureWString& password,
                                             int& pamError, char* errorText, unsigned int errorSize) const
{
    pamError = PAM_SUCCESS;
    if (errorSize != 0)
        errorText[0] = '\0';
    if (m_pPamStrError == nullptr) // the last that is looked for: the others are there when it is
        return FailWith(PAM_SYSTEM_ERR, "PAM is not loaded", pamError, errorText, errorSize);
    if (HasNul(user) || HasNul(password)) // PAM would compare only what stands before it
        return FailWith(PAM_AUTH_ERR, "A NUL in the user name or password", pamError, errorText, errorSize);

    PamContext context;
    CopyAsUtf8(user, context.m_pUser, context.m_UserLength);
    CopyAsUtf8(password, context.m_pPassword, context.m_PasswordLength);
    const bool isAccepted =
        context.m_pUser != nullptr && context.m_pPassword != nullptr
            ? AskPam(context, pamError, errorText, errorSize)
            : FailWith(PAM_BUF_ERR, m_pPamStrError(nullptr, PAM_BUF_ERR), pamError, errorText, errorSize);
    UnixClearPamContext(context);
    return isAccepted;
}

bool QDUserAuthentication::FindPamFunctions(COutputLog* log)
{
    log->Print("Locate PAM functions...");
    const auto find = [&](const char* name, auto& function) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(m_PamLibrary.FindFunction(name));
        if (function == nullptr)
            ReportDLError(log, "Find %s()", name);
        return function != nullptr;
    };
    if (!find("pam_start", m_pPamStart) || !find("pam_authenticate", m_pPamAuthenticate) ||
        !find("pam_end", m_pPamEnd) || !find("pam_strerror", m_pPamStrError))
        return false;
    log->Print("... all functions found");
    return true;
}

bool QDUserAuthentication::GeneratePamConfigurationFile(COutputLog* log)
{
    CQDFilePath path(kServiceFile);
    log->Print("Find '%s'...", kServiceFile);
    if (path.FileExists()) {
        log->Print("...%s already exists", kServiceFile);
        return true;
    }

    log->Print("Generate '%s'...", kServiceFile);
    char error[kErrorTextSize];
    CTextOutputFile file;
    file.SetLineTermination(LineTerminationLF);
    file.SetEncoding(CTextOutputFile::TextEncodingUTF8);
    if (!file.OpenTextFileForWrite(path)) {
        log->Print("...Failed: %s", file.GetLastErrorString(error, sizeof error));
        return false;
    }
    // Shorter than the file's buffer: all of it is written by closing the file.
    file.WriteString(kServiceText, sizeof kServiceText - 1);
    if (file.CloseFile())
        return true;
    log->Print("...Failed: %s", file.GetLastErrorString(error, sizeof error));
    if (!path.EraseFile())
        log->Print("...Cannot remove it: %s", path.GetLastErrorString(error, sizeof error));
    return false;
}

void QDUserAuthentication::ReportDLError(COutputLog* log, const char* format, ...)
{
    const char* reason = dlerror(); // first: another call of the loader's would replace it
    char text[kErrorTextSize];
    va_list arguments;
    va_start(arguments, format);
    qd_vsprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    qd_strcat(text, sizeof text, ": ");
    qd_strcat(text, sizeof text, reason != nullptr ? reason : "No error");
    log->Print("%s", text);
}

int QDUserAuthentication::PamCallback(int count, const pam_message**, pam_response** responses, void* context)
{
    if (responses == nullptr)
        return PAM_CONV_ERR;
    auto* answers =
        static_cast<pam_response*>(calloc(count > 1 ? static_cast<size_t>(count) : 1, sizeof(pam_response)));
    if (answers == nullptr)
        return PAM_BUF_ERR;
    answers[0].resp = strdup(reinterpret_cast<const char*>(static_cast<const PamContext*>(context)->m_pPassword));
    if (answers[0].resp == nullptr) {
        free(answers);
        return PAM_BUF_ERR;
    }
    *responses = answers;
    return PAM_SUCCESS;
}

bool QDUserAuthentication::AskPam(PamContext& context, int& pamError, char* errorText, unsigned int errorSize) const
{
    const pam_conv conversation{PamCallback, &context};
    pam_handle_t* handle = nullptr;
    int code = m_pPamStart(kServiceName, reinterpret_cast<const char*>(context.m_pUser), &conversation, &handle);
    if (code != PAM_SUCCESS)
        return FailWith(code, m_pPamStrError(handle, code), pamError, errorText, errorSize);

    code = m_pPamAuthenticate(handle, PAM_SILENT);
    if (code != PAM_SUCCESS)
        FailWith(code, m_pPamStrError(handle, code), pamError, errorText, errorSize); // before the handle is gone
    m_pPamEnd(handle, code);
    return code == PAM_SUCCESS;
}

void QDUserAuthentication::UnixClearPamContext(PamContext& context) const
{
    ClearCopy(context.m_pPassword, context.m_PasswordLength);
    ClearCopy(context.m_pUser, context.m_UserLength);
}
