#include <QDPlatform/QDAssert.h>

#include <sys/uio.h>

#include <cstdlib>
#include <cstring>

namespace
{

iovec Piece(const char* text)
{
    return {const_cast<char*>(text), std::strlen(text)};
}

} // namespace

void qd_assertion_failed(const char* file, const char* function, const char* expression)
{
    const iovec pieces[] = {Piece(file),       Piece(": "),          Piece(function), Piece(": Assertion \""),
                            Piece(expression), Piece("\" failed.\n")};
    // One call, so that lines of several threads do not mix. The process ends whether or not anybody can read it.
    const ssize_t written = ::writev(2, pieces, sizeof pieces / sizeof pieces[0]);
    static_cast<void>(written);
    std::abort();
}
