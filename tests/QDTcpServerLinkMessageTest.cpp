#include <QDPlatform/QDTcpServerLinkMessage.h>

#include "VirtualSlot.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace
{

// A message with data of its own, which can be broadcast.
class TextMessage : public CQDTcpServerLinkMessage
{
public:
    TextMessage(unsigned int linkId, const std::string& text) : CQDTcpServerLinkMessage(linkId), m_Text(text) {}

    CQDTcpServerLinkMessage* CloneMessage() const override { return new TextMessage(*this); }

    const std::string m_Text;
};

class TellingMessage : public CQDTcpServerLinkMessage
{
public:
    explicit TellingMessage(bool& deleted) : CQDTcpServerLinkMessage(1), m_Deleted(deleted) {}

    ~TellingMessage() override { m_Deleted = true; }

private:
    bool& m_Deleted;
};

} // namespace

TEST(CQDTcpServerLinkMessage, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CQDTcpServerLinkMessage>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CQDTcpServerLinkMessage::CloneMessage), 2);
    EXPECT_EQ(VirtualSlot(&CQDTcpServerLinkMessage::GetLinkId), -1);
    EXPECT_EQ(VirtualSlot(&CQDTcpServerLinkMessage::SetId), -1);
}

TEST(CQDTcpServerLinkMessage, NamesTheLinkOfItsConstruction)
{
    for (const unsigned int linkId : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
        const CQDTcpServerLinkMessage message(linkId);

        EXPECT_EQ(message.GetLinkId(), linkId);
    }
}

TEST(CQDTcpServerLinkMessage, SetIdAddressesAnotherLink)
{
    CQDTcpServerLinkMessage message(1);

    message.SetId(0xFFFFFFFEu);

    EXPECT_EQ(message.GetLinkId(), 0xFFFFFFFEu);
}

TEST(CQDTcpServerLinkMessage, CloneIsNullUnlessOverridden)
{
    const CQDTcpServerLinkMessage message(1);

    EXPECT_EQ(message.CloneMessage(), nullptr);
}

TEST(CQDTcpServerLinkMessage, CloneOfADerivedMessageIsAFullCopyOfItsOwn)
{
    const TextMessage message(5, "restart");

    const std::unique_ptr<CQDTcpServerLinkMessage> copy(message.CloneMessage());
    copy->SetId(6);

    EXPECT_EQ(copy->GetLinkId(), 6u);
    EXPECT_EQ(dynamic_cast<const TextMessage&>(*copy).m_Text, "restart");
    EXPECT_EQ(message.GetLinkId(), 5u);
}

TEST(CQDTcpServerLinkMessage, DeletingThroughTheBaseDeletesTheWholeMessage)
{
    bool deleted = false;
    CQDTcpServerLinkMessage* message = new TellingMessage(deleted);

    delete message;

    EXPECT_TRUE(deleted);
}
