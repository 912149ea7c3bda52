#pragma once

#include <QDPlatform/QDDynamicLib.h>
#include <QDPlatform/QDExport.h>

#include <cstdint>

class COutputLog;
class CQDSecureWString;
struct pam_conv;
struct pam_handle;
struct pam_message;
struct pam_response;

// Asks the host's PAM whether a user name and a password belong together, under the product's own service
// "quendrel-scada".
//
// The PAM library is loaded at run time, so that a host without it can run all else. What the service's modules ask is
// never looked at: the password is the answer to the first message of each conversation. The service should have one
// module that prompts at a time, as the file has that InitialiseUserAuthentication() writes.
// Secrets: nothing is logged while a user authenticates. The copies made for PAM are wiped before they are released;
//          the answers that PAM was given are its own to wipe.
// Memory:  where there is none left, operations report it as a failure; loading the library may throw std::bad_alloc.
// Thread:  InitialiseUserAuthentication() while no other thread uses the object. Then LinuxAuthenticate() from any
//          number of threads at once, as far as the PAM modules allow.
// Owns:    the loaded library.
class QD_API QDUserAuthentication
{
public:
    // Loads nothing.
    QDUserAuthentication();
    QDUserAuthentication(const QDUserAuthentication&) = delete;
    QDUserAuthentication& operator=(const QDUserAuthentication&) = delete;

    // Unloads the library. No thread may still be authenticating.
    ~QDUserAuthentication();

    // Loads "libpam.so", else "libpam.so.0", finds the functions in it, and writes "/etc/pam.d/quendrel-scada" unless
    // there is one. To be called once, before any authentication; a further call does it all again.
    // Returns true when the library, its functions and the file are there. Without the library the file is not looked
    // for; without a function it is. A file that exists when it is looked for is never changed; one that appears
    // between the look and the writing is. A file that cannot be written to its end is removed, since the next call
    // would take it for complete, and PAM would go by what is in it.
    // Prints what it does and what fails to `log`, which is not null and used during the call only:
    //     "Find libpam..."; and "...failed: %s" with the loader's text
    //     "Locate PAM functions..."; "... all functions found", or "Find pam_start(): %s" with the loader's text, or
    //         "No error" without one, for the first that is missing of pam_start, pam_authenticate, pam_end and
    //         pam_strerror
    //     "Find '%s'..." with the file's path; "...%s already exists" with the same, or "Generate '%s'..."; and
    //         "...Failed: %s" with the reason, "...Cannot remove it: %s" where not even that succeeds
    // Each of at most 255 bytes.
    bool InitialiseUserAuthentication(COutputLog* log);

    // Returns true when PAM accepted the user. Blocks as long as the modules do: some wait for seconds after a wrong
    // password. Whether the account may be used now (expired, locked hours) is not asked.
    // pamError: 0 then, else PAM's code (PAM_AUTH_ERR, 7, for a wrong password). Three of them come from here: before a
    // successful InitialiseUserAuthentication() of the functions PAM_SYSTEM_ERR, without memory for the copies
    // PAM_BUF_ERR, and PAM_AUTH_ERR for a user name or password that holds a NUL, of which PAM would compare only what
    // stands before it.
    // errorText: empty then, else the code's text in PAM's words (the language is the process's), or why PAM was not
    // asked; at most errorSize - 1 bytes, which may cut a character, and a NUL. May be null when errorSize is 0.
    bool LinuxAuthenticate(const CQDSecureWString& user, const CQDSecureWString& password, int& pamError,
                           char* errorText, unsigned int errorSize) const;

private:
    // What one authentication needs, for PamCallback().
    struct PamContext
    {
        uint32_t m_UserLength{0};            // bytes, terminator excluded
        unsigned char* m_pUser{nullptr};     // owned, terminated
        uint32_t m_PasswordLength{0};        // bytes, terminator excluded
        unsigned char* m_pPassword{nullptr}; // owned, terminated
    };

    // Stops at the first function that is missing.
    QD_LOCAL bool FindPamFunctions(COutputLog* log);

    QD_LOCAL static bool GeneratePamConfigurationFile(COutputLog* log);

    // Prints one message: the formatted text, ": " and what dlerror() has to say, or "No error"; at most 255 bytes in
    // all.
    QD_LOCAL static void ReportDLError(COutputLog* log, const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // Answers a conversation of `count` messages, whatever they are, for `context`, a PamContext: sets `responses` to a
    // new array of `count`, as many as the module may read, and of one where there is no message; the password in the
    // first and nothing in the others. PAM releases them with free(). Returns PAM_SUCCESS; or, with `responses` as it
    // was, PAM_BUF_ERR without memory, and PAM_CONV_ERR when `responses` is null.
    QD_LOCAL static int PamCallback(int count, const pam_message** messages, pam_response** responses, void* context);

    // Asks PAM with both copies made. Returns as LinuxAuthenticate() does.
    QD_LOCAL bool AskPam(PamContext& context, int& pamError, char* errorText, unsigned int errorSize) const;

    // Wipes and releases both copies.
    QD_LOCAL void UnixClearPamContext(PamContext& context) const;

    QDDynamicLib m_PamLibrary;

    // Null until found.
    int (*m_pPamStart)(const char*, const char*, const pam_conv*, pam_handle**){nullptr};
    int (*m_pPamAuthenticate)(pam_handle*, int){nullptr};
    int (*m_pPamEnd)(pam_handle*, int){nullptr};
    const char* (*m_pPamStrError)(pam_handle*, int){nullptr};
};
