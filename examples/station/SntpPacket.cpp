#include "SntpPacket.h"

#include <QDPlatform/QDTimeInterval.h>

#include <algorithm>

// The first bytes of a packet: leap indicator (2 bits), version (3 bits) and mode (3 bits); stratum; poll interval;
// precision. Then four bytes each: root delay, root dispersion, reference id. Then the times, eight bytes each.

namespace
{

constexpr uint64_t kSecondsFrom1601To1900 = 9435484800;
constexpr uint64_t kTicksPerSecond = CQDTimeInterval::TicksPerSecond;

constexpr unsigned int kOldestVersion = 1;
constexpr unsigned int kNewestVersion = 4;
constexpr unsigned int kClientMode = 3;
constexpr unsigned int kServerMode = 4;

// The station does not ask whether, and by whom, the host's clock is set. So it names the clock itself as its
// reference, by the address that stands for one, far down the hierarchy: whoever has a better source prefers that, and
// who has none can use this. The leap indicator is 0 (no leap second is known of), for with 3, clock not synchronised,
// clients would refuse the time. Towards this reference there is no delay and no dispersion.
constexpr unsigned char kStratum = 10;
constexpr std::array<unsigned char, 4> kReferenceId{127, 127, 1, 0};
constexpr unsigned char kPrecision = 0x100 - 23; // 2^-23 s, a little more than the 100 ns of a timestamp's tick

constexpr std::size_t kHeadOffset = 0;
constexpr std::size_t kStratumOffset = 1;
constexpr std::size_t kPollOffset = 2;
constexpr std::size_t kPrecisionOffset = 3;
constexpr std::size_t kReferenceIdOffset = 12;
constexpr std::size_t kReferenceTimeOffset = 16;
constexpr std::size_t kOriginateTimeOffset = 24;
constexpr std::size_t kReceiveTimeOffset = 32;
constexpr std::size_t kTransmitTimeOffset = 40;
constexpr std::size_t kTimeSize = 8;

void PutTime(SntpPacket& packet, std::size_t offset, const CQDTimestamp& time)
{
    const uint64_t value = NtpTimeOf(time);
    for (std::size_t i = 0; i < kTimeSize; ++i)
        packet[offset + i] = static_cast<unsigned char>(value >> (56 - 8 * i) & 0xFF);
}

} // namespace

uint64_t NtpTimeOf(const CQDTimestamp& time)
{
    const uint64_t ticks = static_cast<uint64_t>(time.GetValue());
    const uint64_t seconds = ticks / kTicksPerSecond - kSecondsFrom1601To1900; // wraps before 1900, as it should
    const uint64_t fraction = (ticks % kTicksPerSecond << 32) / kTicksPerSecond;
    return seconds << 32 | fraction;
}

bool MakeSntpAnswer(ByteView request, const CQDTimestamp& received, SntpPacket& answer)
{
    if (request.size() < kSntpPacketSize)
        return false;
    const unsigned int version = request[kHeadOffset] >> 3 & 7;
    const unsigned int mode = request[kHeadOffset] & 7;
    // Not mode 0 either, in which clients and servers of version 1 look alike: two servers could answer each other.
    if (version < kOldestVersion || version > kNewestVersion || mode != kClientMode)
        return false;
    answer.fill(0);
    answer[kHeadOffset] = static_cast<unsigned char>(version << 3 | kServerMode);
    answer[kStratumOffset] = kStratum;
    answer[kPollOffset] = request[kPollOffset];
    answer[kPrecisionOffset] = kPrecision;
    std::copy(kReferenceId.begin(), kReferenceId.end(), answer.begin() + kReferenceIdOffset);
    PutTime(answer, kReferenceTimeOffset, received); // when the reference, the host's clock, was read
    std::copy_n(request.begin() + kTransmitTimeOffset, kTimeSize, answer.begin() + kOriginateTimeOffset);
    PutTime(answer, kReceiveTimeOffset, received);
    return true;
}

void SetTransmitTime(SntpPacket& answer, const CQDTimestamp& now)
{
    PutTime(answer, kTransmitTimeOffset, now);
}
