#pragma once

// All public headers of the library, in the order of docs/architecture.md rather than of the alphabet.

// clang-format off
#include <QDPlatform/QDExport.h>
// text
#include <QDPlatform/QDString.h>
// errors
#include <QDPlatform/QDFormatMessage.h>
#include <QDPlatform/QDError.h>
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
