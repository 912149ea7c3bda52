#include "ReadingsLink.h"

#include "HttpRequest.h"
#include "ProcessImage.h"
#include "ReadingsText.h"

#include <string>

namespace
{

constexpr std::string_view kReadingsPath = "/readings";

std::string_view TextOf(ByteView bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void Append(ByteBuffer& answers, const HttpAnswer& answer)
{
    const std::string text = FormatHttpAnswer(answer);
    answers.insert(answers.end(), text.begin(), text.end());
}

HttpAnswer AnswerHttpRequest(const HttpRequest& request, const ProcessImage& image)
{
    HttpAnswer answer;
    answer.m_ClosesConnection = !request.m_KeepsConnection;
    answer.m_LeavesOutBody = request.m_Method == "HEAD";
    if (request.m_Target != kReadingsPath) {
        answer.m_Status = "404 Not Found";
        answer.m_Body = "There is only /readings.\n";
        return answer;
    }
    if (request.m_Method != "GET" && request.m_Method != "HEAD") {
        answer.m_Status = "405 Method Not Allowed";
        answer.m_Body = "The readings can only be read.\n";
        answer.m_NamesMethods = true;
        return answer;
    }
    HostRegisters registers;
    image.ReadInputRegisters(0, registers); // the host's own, which every image has
    answer.m_Status = "200 OK";
    answer.m_Body = FormatReadings(registers);
    return answer;
}

} // namespace

ReadingsLink::ReadingsLink(const TcpServerLinkCreateContext& context, ProcessImage& image,
                           CQDTimeInterval idleTimeout) :
    RequestLink(context, idleTimeout, kHttpMaximumHeadSize), m_Image(image)
{}

LinkCallbackResult ReadingsLink::AnswerRequest(ByteView received, ByteBuffer& answers, std::size_t& taken)
{
    HttpRequest request;
    std::string reason;
    switch (FindHttpRequest(TextOf(received), request, reason)) {
    case HttpRequestState::Incomplete: break;
    case HttpRequestState::Complete:
        Append(answers, AnswerHttpRequest(request, m_Image));
        taken = request.m_Size;
        if (!request.m_KeepsConnection)
            CloseWhenSent();
        break;
    case HttpRequestState::Untrusted:
        PrintError("Bad request, closing the link: %s", reason.c_str());
        Append(answers, {.m_Status = "400 Bad Request", .m_Body = reason + '\n', .m_ClosesConnection = true});
        CloseWhenSent();
        break;
    }
    return LinkCallbackSuccess;
}
