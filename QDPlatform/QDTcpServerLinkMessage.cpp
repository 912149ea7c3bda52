#include <QDPlatform/QDTcpServerLinkMessage.h>

CQDTcpServerLinkMessage::CQDTcpServerLinkMessage(unsigned int linkId) : m_LinkId(linkId) {}

CQDTcpServerLinkMessage::~CQDTcpServerLinkMessage() = default;

CQDTcpServerLinkMessage* CQDTcpServerLinkMessage::CloneMessage() const
{
    return nullptr;
}

unsigned int CQDTcpServerLinkMessage::GetLinkId() const
{
    return m_LinkId;
}

void CQDTcpServerLinkMessage::SetId(unsigned int linkId)
{
    m_LinkId = linkId;
}
