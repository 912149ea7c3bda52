#pragma once

#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "TemporaryFolder.h"

#include <memory>
#include <string>
#include <vector>

// Servers that others wrote, each on a port of 127.0.0.1 of its own and with a folder of its own, for as long as the
// object lives. A constructor returns when its server takes connections, or has failed the test and said what is
// missing. All of them run as any user.

// An authority for certificates that nobody else trusts.
class CertificateAuthority
{
public:
    CertificateAuthority();

    // The file that makes a client trust it.
    std::string GetCertificateFile() const { return m_Folder / "ca.crt"; }

    // Makes server.crt and server.key in the folder, for 127.0.0.1.
    void MakeServerCertificate(const TemporaryFolder& folder) const;

private:
    TemporaryFolder m_Folder;
};

// What all servers have in common.
class RealServer
{
public:
    RealServer(const RealServer&) = delete;
    RealServer& operator=(const RealServer&) = delete;

    unsigned short GetPort() const { return m_Port.Get(); }

    // "127.0.0.1:PORT".
    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_Port.Get()); }

    // The server's files lie in its sub-folder "files".
    void WriteFile(const std::string& name, const std::string& text) const { WriteFileText(GetPath(name), text); }

    std::string ReadFile(const std::string& name) const { return ReadFileText(GetPath(name)); }

    // What it has printed so far, on both outputs.
    std::string GetPrinted() const;

protected:
    RealServer();
    ~RealServer() = default;

    // Starts the program. files: what must be there, with full paths; packages: Debian's, who bring them. The
    // command's first element is one of the files.
    void Start(const std::vector<std::string>& files, const char* packages, const std::vector<std::string>& command);

    // The same, and returns when the port takes TCP connections.
    void StartTcp(const std::vector<std::string>& files, const char* packages, const std::vector<std::string>& command);

    // Fails the test unless the condition comes true in time.
    template<class Condition>
    void AwaitReady(Condition ready) const
    {
        if (m_Process && !WaitUntil(ready))
            FailStart();
    }

    const TemporaryFolder& GetFolder() const { return m_Folder; }

private:
    std::string GetPath(const std::string& name) const { return m_Folder / ("files/" + name); }

    void FailStart() const;

    ReservedPort m_Port;
    TemporaryFolder m_Folder;
    std::unique_ptr<ChildProcess> m_Process;
};

// nginx. Its answers tell what it was asked:
//   /seen              a line for each of method, uri, authorization, content-type, content-length, via, protocol and
//                      cipher ("method: GET"), an empty line, and the body when it was not a GET
//   /choice?SCHEMES    the same when there is an Authorization header, whatever it says; else offers the schemes of
//                      Basic, Digest, NTLM and Negotiate that the query names
//   /301, /302, /303   redirect to /seen
//   /307/...           redirects to /files/...
//   /slow/SECONDS      "late", after that time
//   /files/...         takes and gives files
//   /private/...       does so with the same files for the user u with the password p, who must log in by Basic
class NginxServer : public RealServer
{
public:
    // authority: signs the server's certificate; the server then speaks TLS only. Not needed any more afterwards.
    explicit NginxServer(const CertificateAuthority* authority = nullptr);

    // path: with "/" in front.
    std::string GetUrl(const std::string& path) const { return m_Scheme + GetAddress() + path; }

private:
    std::string m_Scheme;
};

// lighttpd: gives its files to the user u with the password p, who must log in by Digest.
class DigestServer : public RealServer
{
public:
    DigestServer();

    std::string GetUrl(const std::string& path) const { return "http://" + GetAddress() + path; }
};

// tinyproxy: for the user u with the password p. It names itself "qd-proxy" in the Via header.
class ProxyServer : public RealServer
{
public:
    ProxyServer();
};

// FtpServer.py. Prints the commands that it gets.
class FtpServer : public RealServer
{
public:
    FtpServer();

    std::string GetUrl(const std::string& path) const { return "ftp://" + GetAddress() + path; }
};

// MailServer.py. Prints senders, recipients and messages.
class MailServer : public RealServer
{
public:
    MailServer();

    // The client introduces itself as "test".
    std::string GetUrl() const { return "smtp://" + GetAddress() + "/test"; }
};

// atftpd. Prints what it does, each option of a transfer included.
class TftpServer : public RealServer
{
public:
    TftpServer();

    std::string GetUrl(const std::string& path) const { return "tftp://" + GetAddress() + path; }
};
