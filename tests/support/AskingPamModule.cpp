// A module of PAM that asks as its service file says, all in one conversation, and reads every answer:
//
//     auth required /path/to/module.so 144
//
// The argument is the styles of the messages, a digit each: 1 prompt without echo, 2 with echo, 3 error, 4 information.
// The user is accepted when the first answer is "pw-" and the user name, and no other message has an answer, and the
// caller wants PAM to be silent. Without an argument the conversation has no message, and one answer.
#include <security/pam_appl.h>
#include <security/pam_modules.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define QD_TEST_EXPORT extern "C" __attribute__((visibility("default")))

QD_TEST_EXPORT int pam_sm_authenticate(pam_handle_t* handle, int flags, int argumentCount, const char** arguments)
{
    const std::string styles = argumentCount > 0 ? arguments[0] : "";
    std::vector<pam_message> messages;
    for (const char style : styles)
        messages.push_back({style - '0', "Password: "});
    std::vector<const pam_message*> pointers;
    for (const pam_message& message : messages)
        pointers.push_back(&message);

    const void* item = nullptr;
    const char* user = nullptr;
    if (::pam_get_item(handle, PAM_CONV, &item) != PAM_SUCCESS || ::pam_get_user(handle, &user, nullptr) != PAM_SUCCESS)
        return PAM_SERVICE_ERR;
    const auto* conversation = static_cast<const pam_conv*>(item);
    pam_response* answers = nullptr;
    const int result =
        conversation->conv(static_cast<int>(messages.size()), pointers.data(), &answers, conversation->appdata_ptr);
    if (result != PAM_SUCCESS)
        return result;

    bool isAsExpected = (flags & static_cast<int>(PAM_SILENT)) != 0;
    for (std::size_t i = 0; i < std::max<std::size_t>(messages.size(), 1); ++i) {
        const char* answer = answers[i].resp;
        isAsExpected = isAsExpected && answers[i].resp_retcode == 0 &&
                       (i == 0 ? answer != nullptr && answer == std::string("pw-") + user : answer == nullptr);
        std::free(answers[i].resp);
    }
    std::free(answers);
    return isAsExpected ? PAM_SUCCESS : PAM_AUTH_ERR;
}

QD_TEST_EXPORT int pam_sm_setcred(pam_handle_t*, int, int, const char**)
{
    return PAM_SUCCESS;
}

// Refuses everybody: an authentication does not ask whether the account may be used.
QD_TEST_EXPORT int pam_sm_acct_mgmt(pam_handle_t*, int, int, const char**)
{
    return PAM_ACCT_EXPIRED;
}
