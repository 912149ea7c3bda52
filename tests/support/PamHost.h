#pragma once

#include "Emulation.h"
#include "MountedOver.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#define QD_TEST_FINDS_LEAKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QD_TEST_FINDS_LEAKS 1
#endif
#endif
#ifdef QD_TEST_FINDS_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

// The host's accounts and PAM services as a test wants them, for this process and its children, as long as it lives.
//
// Accounts: "qd-alice" with the password "open sesame", "qd-zoe" with "Käse €𝄞". Services: "common-auth" and
// "common-account", which ask the accounts and do not wait after a wrong password; no other.
// Needs what EnterMountNamespace() needs; where it is not there, the test skips itself with GetReason().
class PamHost
{
public:
    // options: those of the file system that holds /etc/pam.d, in the form of SmallFileSystem's.
    explicit PamHost(const std::string& options = "size=1m,mode=755") : m_ServiceFiles(options)
    {
        if (!m_Etc.IsMounted() || !m_ServiceFiles.IsMounted() || !m_Services.IsMounted())
            return;
        m_IsReady = true;
        Replace("/etc/passwd", ReadFileText("/etc/passwd") + "qd-alice:x:4711:4711::/nonexistent:/bin/false\n"
                                                             "qd-zoe:x:4712:4712::/nonexistent:/bin/false\n");
        Replace("/etc/shadow", // made with openssl passwd -6 -salt quendrel
                "qd-alice:$6$quendrel$0dxvTOpSdM0kHT.p1edD7hBcJPBSCDPmruTBq1TEHgsUL/"
                "xxjUikIFRLWalpNsF7jKnAFFatgN2pWXI5PIjMI.:19000:0:99999:7:::\n"
                "qd-zoe:$6$quendrel$34h9XdYCElUmla5JdXWfN1nqUcIWqXBfWK0Gx2drev8WNxD6r/"
                "v2vZLHzVMJdb9ya5Cqta43.1h0z4plfbw/i1:19000:0:99999:7:::\n");
        Replace("/etc/nsswitch.conf", "passwd: files\nshadow: files\ngroup: files\n");
        WriteService("common-auth", "auth required pam_unix.so nodelay\n");
        WriteService("common-account", "account required pam_unix.so\n");
    }

    PamHost(const PamHost&) = delete;
    PamHost& operator=(const PamHost&) = delete;

    bool IsReady() const { return m_IsReady; }

    // Why it is not ready.
    const std::string& GetReason() const
    {
        if (!m_Etc.IsMounted())
            return m_Etc.GetReason();
        return m_ServiceFiles.IsMounted() ? m_Services.GetReason() : m_ServiceFiles.GetReason();
    }

    void WriteService(const std::string& name, const std::string& text) const
    {
        WriteFileText("/etc/pam.d/" + name, text);
    }

    // The services can be read only from now on. Returns false, with errno, when the system refuses.
    bool MakeServicesReadOnly() { return m_Services.MakeReadOnly(); }

private:
    // The folder of the services must be there to be replaced. It is never made in the system's own /etc.
    std::string MakeServicesFolder() const
    {
        if (m_Etc.IsMounted())
            ::mkdir("/etc/pam.d", 0755);
        return "/etc/pam.d";
    }

    // As another file: those of the system are not the test's to write.
    static void Replace(const std::string& path, const std::string& text)
    {
        WriteFileText(path + ".new", text);
        if (::rename((path + ".new").c_str(), path.c_str()) != 0) {
            std::perror(path.c_str());
            std::abort();
        }
    }

    const ChangeableFolder m_Etc{"/etc"};
    const SmallFileSystem m_ServiceFiles;
    MountedOver m_Services{m_ServiceFiles.GetPath(), MakeServicesFolder()};
    bool m_IsReady{false};
};

// The file of the host's PAM library, as mount(2) wants it; empty when there is none.
inline std::string FindPamLibrary()
{
    void* library = ::dlopen("libpam.so.0", RTLD_LAZY);
    link_map* map = nullptr;
    std::string path;
    if (library != nullptr && ::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0)
        path = map->l_name;
    if (library != nullptr)
        ::dlclose(library);
    // The emulator looks files up under its prefix first, but leaves the places of mounts alone.
    return RunsEmulated() && !path.empty() ? std::getenv("QEMU_LD_PREFIX") + path : path;
}

// What the host's PAM library allocates in this thread while it lives is not looked for as a leak: Linux-PAM 1.5.2
// gives up a part of it when pam_start() fails.
class FailedStart
{
public:
#ifdef QD_TEST_FINDS_LEAKS
    FailedStart()
    {
        __lsan_disable();
    }

    ~FailedStart()
    {
        __lsan_enable();
    }
#else
    FailedStart() {}
#endif

    FailedStart(const FailedStart&) = delete;
    FailedStart& operator=(const FailedStart&) = delete;
};
