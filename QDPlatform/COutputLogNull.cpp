#include <QDPlatform/COutputLogNull.h>

COutputLogNull::~COutputLogNull() = default;

void COutputLogNull::Clear() {}

void COutputLogNull::AppendMessage(LogType, int, const qdchar*, unsigned int) {}
