// A stand-in for the PAM library that does what RecordingPam.h says. Built as a library with the first few of
// the four functions too: QD_PAM_WITHOUT is the number of the first one that is missing, from 1 on, or 0.
#include "RecordingPam.h"

#include <security/pam_appl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define QD_TEST_EXPORT extern "C" __attribute__((visibility("default")))

QD_TEST_EXPORT RecordingPam g_RecordingPam;

RecordingPam g_RecordingPam = {PAM_SUCCESS, PAM_SUCCESS, -99, false, -1, false, 0, "", ""};

namespace
{

pam_conv g_Conversation;
int g_Handle; // its address stands for a pam_handle_t

[[maybe_unused]] pam_handle_t* HandleInUse()
{
    return reinterpret_cast<pam_handle_t*>(&g_Handle);
}

[[maybe_unused, gnu::format(printf, 1, 2)]] void Record(const char* format, ...)
{
    const std::size_t length = std::strlen(g_RecordingPam.m_Calls);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(g_RecordingPam.m_Calls + length, sizeof g_RecordingPam.m_Calls - length, format, arguments);
    va_end(arguments);
}

[[maybe_unused]] void Converse()
{
    const pam_message message = {PAM_PROMPT_ECHO_OFF, "Password: "};
    const pam_message* messages[] = {&message, &message, &message};
    pam_response* answers = nullptr;
    g_RecordingPam.m_ConversationResult =
        g_Conversation.conv(g_RecordingPam.m_MessageCount, messages,
                            g_RecordingPam.m_HasNoPlaceForAnswers ? nullptr : &answers, g_Conversation.appdata_ptr);
    g_RecordingPam.m_HasAnswers = answers != nullptr;
    if (answers == nullptr)
        return;
    for (int i = 0; i < std::max(g_RecordingPam.m_MessageCount, 1); ++i) {
        const char* text = answers[i].resp != nullptr ? answers[i].resp : "";
        if (i == 0)
            std::snprintf(g_RecordingPam.m_FirstAnswer, sizeof g_RecordingPam.m_FirstAnswer, "%s", text);
        else if (answers[i].resp != nullptr || answers[i].resp_retcode != 0)
            ++g_RecordingPam.m_AnswersWithText;
        std::free(answers[i].resp);
    }
    std::free(answers);
}

} // namespace

#if QD_PAM_WITHOUT == 0 || QD_PAM_WITHOUT > 1
QD_TEST_EXPORT int pam_start(const char* service, const char* user, const pam_conv* conversation, pam_handle_t** handle)
{
    Record("pam_start %s %s\n", service, user);
    g_Conversation = *conversation;
    *handle = HandleInUse(); // also where it fails
    return g_RecordingPam.m_StartResult;
}
#endif

#if QD_PAM_WITHOUT == 0 || QD_PAM_WITHOUT > 2
QD_TEST_EXPORT int pam_authenticate(pam_handle_t* handle, int flags)
{
    Record("pam_authenticate %s 0x%x\n", handle == HandleInUse() ? "handle" : "null", static_cast<unsigned int>(flags));
    if (g_RecordingPam.m_MessageCount != -99)
        Converse();
    return g_RecordingPam.m_AuthenticateResult;
}
#endif

#if QD_PAM_WITHOUT == 0 || QD_PAM_WITHOUT > 3
QD_TEST_EXPORT int pam_end(pam_handle_t* handle, int status)
{
    Record("pam_end %s %d\n", handle == HandleInUse() ? "handle" : "null", status);
    return PAM_SUCCESS;
}
#endif

#if QD_PAM_WITHOUT == 0 || QD_PAM_WITHOUT > 4
QD_TEST_EXPORT const char* pam_strerror(pam_handle_t* handle, int code)
{
    Record("pam_strerror %s %d\n", handle == HandleInUse() ? "handle" : "null", code);
    return "K\xC3\xA4se"; // 5 bytes
}
#endif
