#include "RealServers.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace
{

// Full paths: an unprivileged user's PATH lacks /usr/sbin, and another python3 than Debian's lacks the modules.
constexpr const char* kAtftpd = "/usr/sbin/atftpd";
constexpr const char* kLighttpd = "/usr/sbin/lighttpd";
constexpr const char* kNginx = "/usr/sbin/nginx";
constexpr const char* kNginxEcho = "/usr/lib/nginx/modules/ngx_http_echo_module.so";
constexpr const char* kOpenssl = "/usr/bin/openssl";
constexpr const char* kPython = "/usr/bin/python3"; // with -I, else modules of the user come first
constexpr const char* kPythonModules = "/usr/lib/python3/dist-packages/";
constexpr const char* kTinyproxy = "/usr/bin/tinyproxy";

// In front of it stand the lines that name the module and the user; behind it the server's locations, kNginxLocations.
constexpr const char* kNginxGeneral = R"(
daemon off;
master_process off;
pid nginx.pid;
error_log stderr;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path body;
  client_body_buffer_size 1m;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  map $args $basic { ~Basic 'Basic realm="r"'; }
  map $args $digest { ~Digest 'Digest realm="r", nonce="n", qop="auth"'; }
  map $args $ntlm { ~NTLM NTLM; }
  map $args $negotiate { ~Negotiate Negotiate; }
  server {
)";

constexpr const char* kNginxLocations = R"(
    root .;
    set $seen "method: $request_method\nuri: $request_uri\nauthorization: $http_authorization\n";
    set $seen "${seen}content-type: $http_content_type\ncontent-length: $http_content_length\n";
    set $seen "${seen}via: $http_via\nprotocol: $ssl_protocol\ncipher: $ssl_cipher\n\n";
    location /seen {
      if ($request_method = GET) { return 200 $seen; }
      echo_read_request_body;
      echo -n $seen;
      echo_request_body;
    }
    location /choice {
      add_header WWW-Authenticate $basic always;
      add_header WWW-Authenticate $digest always;
      add_header WWW-Authenticate $ntlm always;
      add_header WWW-Authenticate $negotiate always;
      if ($http_authorization = "") { return 401; }
      if ($request_method = GET) { return 200 $seen; }
      echo_read_request_body;
      echo -n $seen;
      echo_request_body;
    }
    location /301 { return 301 /seen; }
    location /302 { return 302 /seen; }
    location /303 { return 303 /seen; }
    location ~ ^/307(/.*)$ { return 307 /files$1; }
    location ~ ^/slow/(.*)$ { echo_sleep $1; echo late; }
    location /files/ { dav_methods PUT; }
    location /private/ { auth_basic r; auth_basic_user_file users; alias files/; dav_methods PUT; }
  }
}
)";

// Behind the lines that set the folder and the port.
constexpr const char* kLighttpdConfiguration = R"(
server.bind = "127.0.0.1"
server.document-root = var.folder + "/files"
server.modules = ("mod_auth", "mod_authn_file")
auth.backend = "plain"
auth.backend.plain.userfile = var.folder + "/users"
auth.require = ("/" => ("method" => "digest", "realm" => "r", "require" => "valid-user"))
)";

// Behind the line that sets the port.
constexpr const char* kTinyproxyConfiguration = R"(
Listen 127.0.0.1
Allow 127.0.0.1
Timeout 20
MaxClients 20
BasicAuth u p
ViaProxyName "qd-proxy"
)";

// Fails the test when one of the files is missing. packages: Debian's, who bring them.
bool HaveFiles(const std::vector<std::string>& files, const char* packages)
{
    for (const std::string& file : files) {
        if (::access(file.c_str(), R_OK) != 0) {
            ADD_FAILURE() << file << " is missing. scripts/install-packages installs it (Debian: " << packages << ").";
            return false;
        }
    }
    return true;
}

// True when some process has the UDP port of 127.0.0.1. A TCP port that is reserved keeps the UDP port of its number
// from other tests' servers, but not from a test's own UDP socket on a port of the kernel's choice.
bool IsUdpPortTaken(unsigned short port)
{
    char local[32];
    std::snprintf(local, sizeof local, ": %08X:%04X ", htonl(INADDR_LOOPBACK), port); // as the kernel prints it
    return ReadFileText("/proc/net/udp").find(local) != std::string::npos;
}

void RunOpenssl(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{kOpenssl, "req",   "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                     "-nodes", "-days", "2"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess openssl(command);
    EXPECT_EQ(openssl.WaitForExit(), 0) << openssl.GetErrors();
}

} // namespace

CertificateAuthority::CertificateAuthority()
{
    if (HaveFiles({kOpenssl}, "openssl"))
        RunOpenssl({"-subj", "/CN=throw-away authority", "-keyout", m_Folder / "ca.key", "-out", GetCertificateFile()});
}

void CertificateAuthority::MakeServerCertificate(const TemporaryFolder& folder) const
{
    RunOpenssl({"-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1", "-addext",
                "basicConstraints=critical,CA:false", "-CA", GetCertificateFile(), "-CAkey", m_Folder / "ca.key",
                "-keyout", folder / "server.key", "-out", folder / "server.crt"});
}

RealServer::RealServer()
{
    if (::mkdir((m_Folder / "files").c_str(), 0700) != 0) {
        std::perror("RealServer");
        std::abort();
    }
}

std::string RealServer::GetPrinted() const
{
    return m_Process ? m_Process->GetOutput() + m_Process->GetErrors() : "";
}

void RealServer::Start(const std::vector<std::string>& files, const char* packages,
                       const std::vector<std::string>& command)
{
    if (HaveFiles(files, packages))
        m_Process = std::make_unique<ChildProcess>(command);
}

void RealServer::StartTcp(const std::vector<std::string>& files, const char* packages,
                          const std::vector<std::string>& command)
{
    Start(files, packages, command);
    AwaitReady([this] { return IsPortOpen(GetPort()); });
}

void RealServer::FailStart() const
{
    ADD_FAILURE() << "A server did not start. It printed:\n" << GetPrinted();
}

NginxServer::NginxServer(const CertificateAuthority* authority) :
    m_Scheme(authority != nullptr ? "https://" : "http://")
{
    std::string configuration = std::string("load_module ") + kNginxEcho + ";\n";
    if (::geteuid() == 0)
        configuration += "user root;\n"; // else it changes to another user, whom a user namespace does not have
    configuration += kNginxGeneral;
    if (authority != nullptr) {
        authority->MakeServerCertificate(GetFolder());
        configuration += "listen " + GetAddress() + " ssl; ssl_certificate server.crt; ssl_certificate_key server.key;";
    } else {
        configuration += "listen " + GetAddress() + ";";
    }
    configuration += kNginxLocations;
    WriteFileText(GetFolder() / "nginx.conf", configuration);
    WriteFileText(GetFolder() / "users", "u:{PLAIN}p\n");
    StartTcp({kNginx, kNginxEcho}, "nginx-light, libnginx-mod-http-echo",
             {kNginx, "-e", "stderr", "-p", GetFolder().GetPath(), "-c", "nginx.conf"});
}

DigestServer::DigestServer()
{
    WriteFileText(GetFolder() / "lighttpd.conf", "var.folder = \"" + GetFolder().GetPath() + "\"\n" + "server.port = " +
                                                     std::to_string(GetPort()) + '\n' + kLighttpdConfiguration);
    WriteFileText(GetFolder() / "users", "u:p\n");
    StartTcp({kLighttpd}, "lighttpd", {kLighttpd, "-D", "-f", GetFolder() / "lighttpd.conf"});
}

ProxyServer::ProxyServer()
{
    WriteFileText(GetFolder() / "tinyproxy.conf", "Port " + std::to_string(GetPort()) + '\n' + kTinyproxyConfiguration);
    StartTcp({kTinyproxy}, "tinyproxy", {kTinyproxy, "-d", "-c", GetFolder() / "tinyproxy.conf"});
}

FtpServer::FtpServer()
{
    StartTcp({kPython, std::string(kPythonModules) + "pyftpdlib"}, "python3-pyftpdlib",
             {kPython, "-I", "-B", FTP_SERVER, std::to_string(GetPort()), GetFolder() / "files"});
}

MailServer::MailServer()
{
    StartTcp({kPython, std::string(kPythonModules) + "aiosmtpd"}, "python3-aiosmtpd",
             {kPython, "-I", "-B", MAIL_SERVER, std::to_string(GetPort())});
}

TftpServer::TftpServer()
{
    // As root it would change to nobody, who cannot read the folder and whom a user namespace does not have.
    const passwd* user = ::getpwuid(::geteuid());
    const group* userGroup = ::getgrgid(::getegid());
    if (user == nullptr || userGroup == nullptr) {
        ADD_FAILURE() << "atftpd serves users and groups with a name only.";
        return;
    }
    Start({kAtftpd}, "atftpd",
          {kAtftpd, "--daemon", "--no-fork", "--logfile", "-", "--verbose=7", "--user",
           std::string(user->pw_name) + '.' + userGroup->gr_name, "--bind-address", "127.0.0.1", "--port",
           std::to_string(GetPort()), GetFolder() / "files"});
    AwaitReady([this] { return IsUdpPortTaken(GetPort()); });
}
