#include <QDPlatform/COutputLogNull.h>

#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "VirtualSlot.h"

namespace
{

// Every way to print, with messages of all lengths.
void PrintEverything(COutputLog& log, const std::string& longText)
{
    static const unsigned char data[100] = {};
    log.Print("%d %s", 5, longText.c_str());
    log.PrintWarning("%s", longText.c_str());
    log.PrintError("%d", 5);
    log.PrintError(3, "%f", 0.5);
    log.PrintString(longText);
    log.PrintData(longText.c_str(), 16, data);
    log.PrintData("title", sizeof data, data);
    log.PrintMultilineString("title", longText.c_str(), static_cast<unsigned int>(longText.size()));
    log.PrintLineFromMultilineString(1, "\tx", 2);
}

} // namespace

TEST(COutputLogNull, IsALogWithoutData)
{
    EXPECT_TRUE((std::is_base_of_v<COutputLog, COutputLogNull>));
    EXPECT_EQ(sizeof(COutputLogNull), sizeof(void*));
}

TEST(COutputLogNull, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<COutputLogNull>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&COutputLogNull::Clear), 2);
    EXPECT_EQ(VirtualSlot(&COutputLogNull::AppendMessage), 3);
}

TEST(COutputLogNull, PrintingIsAllocationFree)
{
    const std::string longText(1000, 'x');
    COutputLogNull log;
    const AllocationCounter allocations;

    PrintEverything(log, longText);
    log.Clear();

    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(COutputLogNull, AppendMessageDoesNotReadTheText)
{
    COutputLogNull log;

    log.AppendMessage(COutputLog::Info, 0, nullptr, 100); // an access would end the process
}
