#pragma once

#include "BigEndian.h"

#include <QDPlatform/QDTimestamp.h>

#include <array>
#include <cstddef>
#include <cstdint>

// The packets by which clients ask for the time and get it: SNTP, which is what a server needs of NTP when it remembers
// no client (RFC 4330, RFC 5905).

constexpr std::size_t kSntpPacketSize = 48; // bytes, without what NTP may append

using SntpPacket = std::array<unsigned char, kSntpPacketSize>;

// A time as NTP counts it: seconds since 1900-01-01 in the high half, cut to 32 bits, so that they begin at 0 again on
// 2036-02-07 06:28:16; the fraction of a second in the low half, in steps of 2^-32 s, truncated. time: from 1601 on.
uint64_t NtpTimeOf(const CQDTimestamp& time);

// Makes the answer to a request that arrived at `received`, but for the time of transmission, which must follow.
// Returns false, and leaves `answer` alone, when the request is to have none: when it is shorter than a packet, its
// version is none of 1 to 4, or it does not come from a client (mode 3). In particular an answer, its own or another
// server's, is never answered. What follows the packet in a longer request is not looked at.
bool MakeSntpAnswer(ByteView request, const CQDTimestamp& received, SntpPacket& answer);

// Says in the answer that it is sent at `now`.
void SetTransmitTime(SntpPacket& answer, const CQDTimestamp& now);
