#pragma once

#include <QDPlatform/QDExport.h>

// A message that any thread posts to a link of a CQDTcpServer, by link id; a caller derives from it to carry its data.
//
// Thread: one at a time. CQDTcpServer::PostLinkMessage hands the object over to the link's worker thread.
// Owns:   nothing. Whoever holds it last deletes it: the link's OnMessage(), or the library when it cannot be
// delivered.
class QD_API CQDTcpServerLinkMessage
{
public:
    // linkId: the receiver. For a message that is to be broadcast any number will do.
    explicit CQDTcpServerLinkMessage(unsigned int linkId);
    CQDTcpServerLinkMessage(const CQDTcpServerLinkMessage&) = default;
    CQDTcpServerLinkMessage& operator=(const CQDTcpServerLinkMessage&) = default;
    virtual ~CQDTcpServerLinkMessage();

    // Returns a full copy, which the caller owns. The default returns null: such a message cannot be broadcast.
    virtual CQDTcpServerLinkMessage* CloneMessage() const;

    unsigned int GetLinkId() const;

    // Addresses the message to another link. Not after it was posted.
    void SetId(unsigned int linkId);

private:
    unsigned int m_LinkId;
};
