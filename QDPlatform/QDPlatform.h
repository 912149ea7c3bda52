#pragma once

// All public headers of the library, in the order of docs/architecture.md rather than of the alphabet.

// clang-format off
#include <QDPlatform/QDExport.h>
// text
#include <QDPlatform/QDString.h>
#include <QDPlatform/UnicodeCharTable.h>
#include <QDPlatform/UnicodeCharacter.h>
#include <QDPlatform/QDChar.h>
#include <QDPlatform/QDSecureWString.h>
#include <QDPlatform/QDTextLocation.h>
// errors
#include <QDPlatform/QDFormatMessage.h>
#include <QDPlatform/QDError.h>
// locale
#include <QDPlatform/QDLocale.h>
#include <QDPlatform/QDModule.h>
// time
#include <QDPlatform/QDTimeInterval.h>
#include <QDPlatform/QDTimestamp.h>
// synchronisation
#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDReaderWriterLock.h>
#include <QDPlatform/QDWaitEvent.h>
#include <QDPlatform/QDRefCount.h>
// logging
#include <QDPlatform/COutputLog.h>
#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/COutputLogToString.h>
#include <QDPlatform/COutputLogToRawList.h>
// time
#include <QDPlatform/QDTimeZone.h>
// writers
#include <QDPlatform/CTextOutput.h>
// threads
#include <QDPlatform/QDThread.h>
// networking
#include <QDPlatform/QDSocket.h>
#include <QDPlatform/QDSocketThread.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>
#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTcpServerThread.h>
#include <QDPlatform/QDTcpServer.h>
// clang-format on
