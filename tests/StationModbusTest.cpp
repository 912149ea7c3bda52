// The station without sockets: frames, requests, the process image and the host's figures.
#include "Emulation.h"
#include "FixedHostFigures.h"
#include "HexText.h"

#include <HostFigures.h>
#include <ModbusFrame.h>
#include <ModbusRequest.h>
#include <ProcessImage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

ByteBuffer Bytes(std::string_view hex)
{
    const std::string text = FromHex(hex);
    return ByteBuffer(text.begin(), text.end());
}

std::string Hex(ByteView bytes)
{
    return ToHex(std::string(bytes.begin(), bytes.end()));
}

// The same bytes without blanks.
std::string Hex(std::string_view hex)
{
    return ToHex(FromHex(hex));
}

struct FindResult
{
    ModbusFrameState m_State;
    ModbusFrame m_Frame;
    std::string m_Reason;
};

FindResult Find(const ByteBuffer& received)
{
    FindResult result{};
    result.m_State = FindModbusFrame(received, result.m_Frame, result.m_Reason);
    return result;
}

} // namespace

TEST(ModbusFrame, WholeFrameIsCutIntoItsFields)
{
    const ByteBuffer received = Bytes("1234 0000 0006 11 03 006B 0003");

    const FindResult result = Find(received);

    ASSERT_EQ(result.m_State, ModbusFrameState::Complete);
    EXPECT_EQ(result.m_Frame.m_TransactionId, 0x1234);
    EXPECT_EQ(result.m_Frame.m_UnitId, 0x11);
    EXPECT_EQ(Hex(result.m_Frame.m_Pdu), "03006B0003");
    EXPECT_EQ(result.m_Frame.m_Size, 12u);
}

TEST(ModbusFrame, BytesAfterTheFrameAreLeftAlone)
{
    const ByteBuffer received = Bytes("0001 0000 0002 11 07 FFFF FFFF");

    const FindResult result = Find(received);

    ASSERT_EQ(result.m_State, ModbusFrameState::Complete);
    EXPECT_EQ(Hex(result.m_Frame.m_Pdu), "07");
    EXPECT_EQ(result.m_Frame.m_Size, 8u);
}

TEST(ModbusFrame, EveryBeginningOfAFrameIsIncomplete)
{
    const ByteBuffer whole = Bytes("1234 0000 0006 11 03 006B 0003");

    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        EXPECT_EQ(Find(ByteBuffer(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))).m_State,
                  ModbusFrameState::Incomplete);
    }
}

TEST(ModbusFrame, LongestFrameHas260Bytes)
{
    ByteBuffer received = Bytes("0001 0000 00FE 11 03");
    received.resize(260);

    const FindResult result = Find(received);

    ASSERT_EQ(result.m_State, ModbusFrameState::Complete);
    EXPECT_EQ(result.m_Frame.m_Size, 260u);
    EXPECT_EQ(result.m_Frame.m_Pdu.size(), 253u);
}

TEST(ModbusFrame, WhatIsNoFrameIsRefusedWithTheReasonAsSoonAsItIsKnown)
{
    const struct
    {
        const char* m_Received;
        const char* m_Reason;
    } cases[] = {
        {"0001 0001", "protocol identifier 1 is not Modbus"},
        {"0001 4745 5420 2F20", "protocol identifier 18245 is not Modbus"},
        {"0001 0000 0000", "length 0 is not within 2 to 254"},
        {"0001 0000 0001", "length 1 is not within 2 to 254"},
        {"0001 0000 00FF", "length 255 is not within 2 to 254"},
        {"0001 0000 FFFF 11 03", "length 65535 is not within 2 to 254"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Received);
        const FindResult result = Find(Bytes(test.m_Received));
        EXPECT_EQ(result.m_State, ModbusFrameState::Untrusted);
        EXPECT_EQ(result.m_Reason, test.m_Reason);
    }
}

TEST(ModbusFrame, AnswerReturnsTransactionAndUnit)
{
    ModbusFrame request;
    request.m_TransactionId = 0xFE01;
    request.m_UnitId = 0xF7;
    ByteBuffer output = Bytes("AA");

    AppendModbusAnswer(request, Bytes("03 02 BEEF"), output);

    EXPECT_EQ(Hex(output), Hex("AA FE01 0000 0005 F7 03 02 BEEF"));
}

// An image whose tables hold values that are easily told apart, at their ends too.
class ModbusRequest : public testing::Test
{
protected:
    ModbusRequest()
    {
        const bool coils[] = {true, false, true, true, false, false, true, true, true, false};
        const bool lastCoil[] = {true};
        const uint16_t registers[] = {0xAE41, 0x5652, 0x4340};
        const uint16_t lastRegister[] = {0xBEEF};
        EXPECT_TRUE(m_Image.WriteCoils(0, coils));
        EXPECT_TRUE(m_Image.WriteCoils(2047, lastCoil));
        EXPECT_EQ(m_Image.WriteHoldingRegisters(0, registers), ProcessImage::WriteResult::Written);
        EXPECT_EQ(m_Image.WriteHoldingRegisters(1023, lastRegister), ProcessImage::WriteResult::Written);
    }

    std::string Answer(const ByteBuffer& request) { return Hex(AnswerModbusRequest(request, m_Image)); }

    std::string Answer(std::string_view hex) { return Answer(Bytes(hex)); }

    struct Case
    {
        const char* m_Name;
        const char* m_Request;
        const char* m_Answer;
    };

    template<std::size_t count>
    void ExpectAnswers(const Case (&cases)[count])
    {
        for (const Case& test : cases) {
            SCOPED_TRACE(test.m_Name);
            EXPECT_EQ(Answer(test.m_Request), Hex(test.m_Answer));
        }
    }

    ProcessImage m_Image{&FixedHostFigures};
};

TEST_F(ModbusRequest, Function1ReadsCoils)
{
    ExpectAnswers({
        {"one byte", "01 0000 0008", "01 01 CD"},
        {"spare bits are 0", "01 0000 000A", "01 02 CD 01"},
        {"from the middle", "01 0006 0003", "01 01 07"},
        {"the last", "01 07FF 0001", "01 01 01"},
        {"one too far", "01 07FF 0002", "81 02"},
        {"behind the end", "01 0800 0001", "81 02"},
        {"far behind the end", "01 FFFF 0001", "81 02"},
        {"none", "01 0000 0000", "81 03"},
        {"2001", "01 0000 07D1", "81 03"},
        {"quantity before address", "01 FFFF 0000", "81 03"},
        {"function only", "01", "81 03"},
        {"a byte short", "01 0000 00", "81 03"},
        {"a byte long", "01 0000 0008 00", "81 03"},
    });
}

TEST_F(ModbusRequest, Function1ReadsUpTo2000Coils)
{
    const std::string answer = Answer("01 0000 07D0");

    EXPECT_EQ(answer.size(), 2u * 252u);
    EXPECT_EQ(answer.substr(0, 8), "01FACD01");
}

TEST_F(ModbusRequest, Function2ReadsDiscreteInputs)
{
    ExpectAnswers({
        {"all", "02 0000 0004", "02 01 00"},
        {"the last", "02 0003 0001", "02 01 00"},
        {"one too far", "02 0003 0002", "82 02"},
        {"2000 is a quantity, but the table is shorter", "02 0000 07D0", "82 02"},
        {"2001", "02 0000 07D1", "82 03"},
        {"none", "02 0000 0000", "82 03"},
        {"a byte short", "02 0000 00", "82 03"},
    });
}

TEST_F(ModbusRequest, Function3ReadsHoldingRegisters)
{
    ExpectAnswers({
        {"three", "03 0000 0003", "03 06 AE41 5652 4340"},
        {"one", "03 0001 0001", "03 02 5652"},
        {"the last", "03 03FF 0001", "03 02 BEEF"},
        {"one too far", "03 03FF 0002", "83 02"},
        {"behind the end", "03 0400 0001", "83 02"},
        {"far behind the end", "03 FFFF 007D", "83 02"},
        {"none", "03 0000 0000", "83 03"},
        {"126", "03 0000 007E", "83 03"},
        {"65535", "03 0000 FFFF", "83 03"},
        {"function only", "03", "83 03"},
        {"a byte short", "03 0000 00", "83 03"},
        {"a byte long", "03 0000 0003 00", "83 03"},
    });
}

TEST_F(ModbusRequest, Function3ReadsUpTo125Registers)
{
    const std::string answer = Answer("03 0000 007D");

    EXPECT_EQ(answer.size(), 2u * 252u);
    EXPECT_EQ(answer.substr(0, 16), "03FAAE4156524340");
}

TEST_F(ModbusRequest, Function4ReadsInputRegisters)
{
    EXPECT_EQ(Answer("04 0000 000E"), "041C" + Hex(kFixedInputRegisters));
    ExpectAnswers({
        {"free memory", "04 0005 0002", "04 04 0010 ABCD"},
        {"the last", "04 000D 0001", "04 02 03DB"},
        {"one too far", "04 000D 0002", "84 02"},
        {"behind the end", "04 000E 0001", "84 02"},
        {"125 is a quantity, but the table is shorter", "04 0000 007D", "84 02"},
        {"126", "04 0000 007E", "84 03"},
        {"none", "04 0000 0000", "84 03"},
        {"a byte long", "04 0000 0001 00", "84 03"},
    });
}

TEST_F(ModbusRequest, Function5WritesACoil)
{
    ExpectAnswers({
        {"on", "05 0001 FF00", "05 0001 FF00"},
        {"off", "05 0000 0000", "05 0000 0000"},
        {"both are there", "01 0000 0008", "01 01 CE"},
        {"neither on nor off", "05 0000 0001", "85 03"},
        {"nearly on", "05 0000 FF01", "85 03"},
        {"behind the end", "05 0800 FF00", "85 02"},
        {"value before address", "05 0800 1234", "85 03"},
        {"a byte short", "05 0000 FF", "85 03"},
        {"a byte long", "05 0000 FF00 00", "85 03"},
        {"nothing else changed", "01 0000 0008", "01 01 CE"},
    });
}

TEST_F(ModbusRequest, Function6WritesARegister)
{
    ExpectAnswers({
        {"write", "06 0001 0003", "06 0001 0003"},
        {"it is there", "03 0000 0003", "03 06 AE41 0003 4340"},
        {"the last", "06 03FF FFFF", "06 03FF FFFF"},
        {"behind the end", "06 0400 0001", "86 02"},
        {"a byte short", "06 0001 00", "86 03"},
        {"a byte long", "06 0001 0003 00", "86 03"},
    });
}

TEST_F(ModbusRequest, Function15WritesCoils)
{
    ExpectAnswers({
        {"ten", "0F 0013 000A 02 CD 01", "0F 0013 000A"},
        {"they are there", "01 0013 000B", "01 02 CD 01"},
        {"spare bits are ignored", "0F 0020 0001 01 FF", "0F 0020 0001"},
        {"only one was written", "01 0020 0008", "01 01 01"},
        {"none", "0F 0013 0000 00", "8F 03"},
        {"byte count too small", "0F 0013 000A 01 CD 01", "8F 03"},
        {"byte count too large", "0F 0013 000A 03 CD 01", "8F 03"},
        {"items cut off", "0F 0013 000A 02 CD", "8F 03"},
        {"items too many", "0F 0013 000A 02 CD 01 00", "8F 03"},
        {"no byte count", "0F 0013 000A", "8F 03"},
        {"function only", "0F", "8F 03"},
        {"one too far", "0F 07FF 0002 01 00", "8F 02"},
        {"the last was not written", "01 07FF 0001", "01 01 01"},
    });
}

TEST_F(ModbusRequest, Function15WritesUpTo1968Coils)
{
    ByteBuffer longest = Bytes("0F 0000 07B0 F6");
    longest.resize(longest.size() + 246, 0xFF);
    ByteBuffer tooLong = Bytes("0F 0000 07B1 F7");
    tooLong.resize(tooLong.size() + 247, 0xFF);

    EXPECT_EQ(Answer(longest), "0F000007B0");
    EXPECT_EQ(Answer("01 07A8 0010"), "0102FF00"); // coils 1960 to 1975
    EXPECT_EQ(Answer(tooLong), "8F03");
}

TEST_F(ModbusRequest, Function16WritesRegisters)
{
    ExpectAnswers({
        {"two", "10 0001 0002 04 000A 0102", "10 0001 0002"},
        {"they are there", "03 0000 0003", "03 06 AE41 000A 0102"},
        {"none", "10 0001 0000 00", "90 03"},
        {"byte count too small", "10 0001 0002 03 000A 0102", "90 03"},
        {"byte count too large", "10 0001 0002 05 000A 0102 00", "90 03"},
        {"items cut off", "10 0001 0002 04 000A 01", "90 03"},
        {"items too many", "10 0001 0002 04 000A 0102 03", "90 03"},
        {"no byte count", "10 0001 0002", "90 03"},
        {"function only", "10", "90 03"},
        {"one too far", "10 03FF 0002 04 1111 2222", "90 02"},
        {"the last was not written", "03 03FF 0001", "03 02 BEEF"},
    });
}

TEST_F(ModbusRequest, Function16WritesUpTo123Registers)
{
    ByteBuffer longest = Bytes("10 0000 007B F6");
    longest.resize(longest.size() + 246, 0x77);
    ByteBuffer tooLong = Bytes("10 0000 007C F8");
    tooLong.resize(tooLong.size() + 248, 0x77);

    EXPECT_EQ(Answer(longest), "100000007B");
    EXPECT_EQ(Answer("03 007A 0002"), "030477770000");
    EXPECT_EQ(Answer(tooLong), "9003");
}

TEST_F(ModbusRequest, RegistersThatCannotBeKeptAreRefusedAndNotWritten)
{
    ProcessImage::HoldingRegisters registers{0xAE41, 0x5652, 0x4340};
    m_Image.KeepHoldingRegisters(registers, [](const ProcessImage::HoldingRegisters&) { return false; });

    ExpectAnswers({
        {"one", "06 0001 0003", "86 04"},
        {"two", "10 0001 0002 04 000A 0102", "90 04"},
        {"neither is there", "03 0000 0003", "03 06 AE41 5652 4340"},
        {"address before keeping", "06 0400 0001", "86 02"},
        {"value before keeping", "10 0001 0002 03 000A 0102", "90 03"},
        {"coils need no keeping", "05 0001 FF00", "05 0001 FF00"},
    });
}

TEST_F(ModbusRequest, OtherFunctionsAreIllegal)
{
    ExpectAnswers({
        {"0", "00", "80 01"},
        {"7", "07", "87 01"},
        {"8", "08 0000 1234", "88 01"},
        {"23", "17 0000 0001 0000 0001 02 0000", "97 01"},
        {"43", "2B 0E 01 00", "AB 01"},
        {"an exception as request", "83 02", "83 01"},
        {"255", "FF", "FF 01"},
    });
}

TEST(ProcessImage, StartsWithEverythingOffAndZero)
{
    const ProcessImage image;
    std::array<bool, ProcessImage::kCoilCount> coils;
    std::array<uint16_t, ProcessImage::kHoldingRegisterCount> registers;

    ASSERT_TRUE(image.ReadCoils(0, coils));
    ASSERT_TRUE(image.ReadHoldingRegisters(0, registers));

    EXPECT_EQ(coils, decltype(coils){});
    EXPECT_EQ(registers, decltype(registers){});
}

TEST(ProcessImage, StartsWithTheRegistersThatWereKept)
{
    ProcessImage image;
    ProcessImage::HoldingRegisters kept{1, 2, 3};
    kept.back() = 4;
    ProcessImage::HoldingRegisters registers;

    image.KeepHoldingRegisters(kept, [](const ProcessImage::HoldingRegisters&) { return true; });

    ASSERT_TRUE(image.ReadHoldingRegisters(0, registers));
    EXPECT_EQ(registers, kept);
}

TEST(ProcessImage, ChangeIsKeptWholeBeforeReadersSeeIt)
{
    ProcessImage image;
    ProcessImage::HoldingRegisters kept{};
    ProcessImage::HoldingRegisters seen{};
    image.KeepHoldingRegisters({5, 6, 7}, [&](const ProcessImage::HoldingRegisters& changed) {
        kept = changed;
        return image.ReadHoldingRegisters(0, seen); // waits for nobody
    });
    const uint16_t values[] = {60, 70};

    EXPECT_EQ(image.WriteHoldingRegisters(1, values), ProcessImage::WriteResult::Written);

    EXPECT_EQ(kept, (ProcessImage::HoldingRegisters{5, 60, 70}));
    EXPECT_EQ(seen, (ProcessImage::HoldingRegisters{5, 6, 7}));
    ASSERT_TRUE(image.ReadHoldingRegisters(0, seen));
    EXPECT_EQ(seen, kept);
}

TEST(ProcessImage, RegistersThatCannotBeKeptStayAsTheyWere)
{
    ProcessImage image;
    image.KeepHoldingRegisters({5, 6, 7}, [](const ProcessImage::HoldingRegisters&) { return false; });
    const uint16_t values[] = {60, 70};
    ProcessImage::HoldingRegisters seen{};

    EXPECT_EQ(image.WriteHoldingRegisters(1, values), ProcessImage::WriteResult::NotKept);

    ASSERT_TRUE(image.ReadHoldingRegisters(0, seen));
    EXPECT_EQ(seen, (ProcessImage::HoldingRegisters{5, 6, 7}));
}

TEST(ProcessImage, NothingIsKeptWhenNothingChanges)
{
    ProcessImage image;
    int keepings = 0;
    image.KeepHoldingRegisters({5, 6, 7}, [&](const ProcessImage::HoldingRegisters&) { return ++keepings > 0; });
    const uint16_t same[] = {6, 7};
    const uint16_t beyond[] = {1, 2};
    const bool coil[] = {true};

    EXPECT_EQ(image.WriteHoldingRegisters(1, same), ProcessImage::WriteResult::Written);
    EXPECT_EQ(image.WriteHoldingRegisters(1023, beyond), ProcessImage::WriteResult::BeyondTable);
    EXPECT_TRUE(image.WriteCoils(0, coil));

    EXPECT_EQ(keepings, 0);
}

TEST(ProcessImage, WritersOfOtherRegistersLoseNothingAndAreKeptOneAtATime)
{
    ProcessImage image;
    ProcessImage::HoldingRegisters kept{};
    std::atomic<int> keepers{0};
    std::atomic<int> overlaps{0};
    image.KeepHoldingRegisters({}, [&](const ProcessImage::HoldingRegisters& changed) {
        overlaps += keepers.fetch_add(1) != 0;
        kept = changed;
        std::this_thread::yield();
        --keepers;
        return true;
    });
    const auto write = [&](std::size_t address) {
        for (uint16_t value = 1; value <= 20000; ++value)
            image.WriteHoldingRegisters(address, std::span(&value, 1));
    };

    std::thread first(write, 0);
    std::thread second(write, 1023);
    first.join();
    second.join();

    ProcessImage::HoldingRegisters expected{};
    expected.front() = expected.back() = 20000;
    ProcessImage::HoldingRegisters seen;
    ASSERT_TRUE(image.ReadHoldingRegisters(0, seen));
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(kept, expected);
    EXPECT_EQ(overlaps.load(), 0);
}

TEST(ProcessImage, EachDiscreteInputTellsOneState)
{
    using Change = void (*)(HostFigures&);

    const struct
    {
        const char* m_Name;
        Change m_Change;
        std::array<bool, 4> m_Inputs;
    } cases[] = {
        {"nothing", [](HostFigures&) {}, {false, false, false, false}},
        {"odd second", [](HostFigures& figures) { figures.m_Time.AddMilliseonds(1000); }, {true, false, false, false}},
        {"load 2.00 on 2 processors", [](HostFigures& figures) { figures.m_Load1Minute = 200; }, {}},
        {"load 2.01", [](HostFigures& figures) { figures.m_Load1Minute = 201; }, {false, true, false, false}},
        {"1/16 free", [](HostFigures& figures) { figures.m_FreeMemoryKiB = 0x20000; }, {}},
        {"less free", [](HostFigures& figures) { figures.m_FreeMemoryKiB = 0x1FFFF; }, {false, false, true, false}},
        {"600 s", [](HostFigures& figures) { figures.m_UptimeSeconds = 600; }, {}},
        {"599 s", [](HostFigures& figures) { figures.m_UptimeSeconds = 599; }, {false, false, false, true}},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        HostFigures figures = FixedHostFigures();
        test.m_Change(figures);
        const ProcessImage image([&] { return figures; });
        std::array<bool, 4> inputs{};
        EXPECT_TRUE(image.ReadDiscreteInputs(0, inputs));
        EXPECT_EQ(inputs, test.m_Inputs);
    }
}

TEST(ProcessImage, HostIsAskedOnceForEachReading)
{
    int readings = 0;
    const ProcessImage image([&] {
        ++readings;
        return FixedHostFigures();
    });
    std::array<uint16_t, ProcessImage::kInputRegisterCount> registers;

    ASSERT_TRUE(image.ReadInputRegisters(0, registers));
    ASSERT_TRUE(image.ReadInputRegisters(7, std::span(registers).first(7)));

    EXPECT_EQ(readings, 2);
}

TEST(ProcessImage, ReadingSeesEachWriteWholeOrNotAtAll)
{
    ProcessImage image;
    std::atomic<bool> stop{false};
    const auto write = [&](uint16_t step) {
        std::array<uint16_t, 123> values;
        for (uint16_t value = 0; !stop.load(); value = static_cast<uint16_t>(value + step)) {
            values.fill(value);
            image.WriteHoldingRegisters(100, values);
        }
    };
    std::thread first(write, 1);
    std::thread second(write, 7);

    int torn = 0;
    std::array<uint16_t, 123> seen;
    for (int i = 0; i < 20000; ++i) {
        image.ReadHoldingRegisters(100, seen);
        torn += seen.front() != seen.back() || seen.front() != seen[61];
    }
    stop.store(true);
    first.join();
    second.join();

    EXPECT_EQ(torn, 0);
}

TEST(HostFigures, ReadAgreesWithTheKernelsFiles)
{
    if (RunsEmulated() && sizeof(long) == 4)
        GTEST_SKIP() << "the emulator's sysinfo() cuts memory sizes to 32 bits";
    double uptimeBefore = 0;
    std::string unit;
    uint64_t totalKiB = 0;
    std::ifstream("/proc/uptime") >> uptimeBefore;
    std::ifstream memory("/proc/meminfo");
    memory >> unit >> totalKiB;
    ASSERT_EQ(unit, "MemTotal:");

    const HostFigures figures = HostFigures::Read();

    double uptimeAfter = 0;
    std::ifstream("/proc/uptime") >> uptimeAfter;
    EXPECT_GE(figures.m_UptimeSeconds + 1.0, uptimeBefore);
    EXPECT_LE(figures.m_UptimeSeconds, uptimeAfter + 1.0);
    EXPECT_EQ(figures.m_TotalMemoryKiB, totalKiB);
    EXPECT_GT(figures.m_FreeMemoryKiB, 0u);
    EXPECT_LT(figures.m_FreeMemoryKiB, totalKiB);
    EXPECT_GE(figures.m_ProcessorCount, 1u);
}

TEST(HostFigures, LoadIsTheKernelsTimes100)
{
    // The kernel works the load out every 5 s: it can change between two readings, but not between three.
    const auto kernelLoad = [] {
        std::array<double, 3> load{};
        std::ifstream("/proc/loadavg") >> load[0] >> load[1] >> load[2];
        return load;
    };
    std::array<double, 3> before{};
    HostFigures figures;
    do {
        before = kernelLoad();
        figures = HostFigures::Read();
    } while (before != kernelLoad());

    // The file rounds, the figure is cut.
    EXPECT_NEAR(figures.m_Load1Minute, before[0] * 100, 1.01);
    EXPECT_NEAR(figures.m_Load5Minutes, before[1] * 100, 1.01);
    EXPECT_NEAR(figures.m_Load15Minutes, before[2] * 100, 1.01);
}

TEST(HostFigures, TimeIsNow)
{
    const CQDTimestamp before = CQDTimestamp::UTCNow();

    const HostFigures figures = HostFigures::Read();

    EXPECT_GE(figures.m_Time, before);
    EXPECT_LE(figures.m_Time, CQDTimestamp::UTCNow());
}
