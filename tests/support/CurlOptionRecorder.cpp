#include "CurlOptionRecorder.h"

#include "NextFunction.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

namespace
{

std::mutex g_Lock; // the recorder's calls
bool g_IsRecording = false;
std::vector<CurlOptionRecorder::Call> g_Calls;

std::atomic<int> g_Allowed{std::numeric_limits<int>::max()};
std::atomic<bool> g_HasFailed{false};
std::atomic<int> g_Blocks{0};

constexpr CURLoption kTexts[] = {CURLOPT_URL,       CURLOPT_USERPWD,         CURLOPT_PROXY,     CURLOPT_SSL_CIPHER_LIST,
                                 CURLOPT_FTPPORT,   CURLOPT_MAIL_AUTH,       CURLOPT_MAIL_FROM, CURLOPT_XOAUTH2_BEARER,
                                 CURLOPT_USERAGENT, CURLOPT_DEFAULT_PROTOCOL};
constexpr CURLoption kLists[] = {CURLOPT_HTTPHEADER, CURLOPT_MAIL_RCPT};

template<std::size_t size>
bool Contains(const CURLoption (&options)[size], CURLoption option)
{
    for (const CURLoption candidate : options)
        if (candidate == option)
            return true;
    return false;
}

void Record(CurlOptionRecorder::Call call)
{
    if (call.m_Pointer != nullptr && Contains(kTexts, call.m_Option))
        call.m_Text = static_cast<const char*>(call.m_Pointer);
    if (Contains(kLists, call.m_Option))
        for (auto* item = static_cast<const curl_slist*>(call.m_Pointer); item != nullptr; item = item->next)
            call.m_List.emplace_back(item->data);
    g_Calls.push_back(std::move(call));
}

bool TakeMemory()
{
    if (g_Allowed.fetch_sub(1) > 0) {
        g_Blocks.fetch_add(1);
        return true;
    }
    g_Allowed.store(0);
    g_HasFailed.store(true);
    return false;
}

void* Allocate(std::size_t size)
{
    return TakeMemory() ? std::malloc(size) : nullptr;
}

void* AllocateZeroed(std::size_t count, std::size_t size)
{
    return TakeMemory() ? std::calloc(count, size) : nullptr;
}

char* Duplicate(const char* text)
{
    return TakeMemory() ? ::strdup(text) : nullptr;
}

void* Reallocate(void* block, std::size_t size)
{
    if (!TakeMemory())
        return nullptr;
    if (block != nullptr)
        g_Blocks.fetch_sub(1);
    return std::realloc(block, size);
}

void Free(void* block)
{
    if (block != nullptr)
        g_Blocks.fetch_sub(1);
    std::free(block);
}

// libcurl takes the functions of the first initialisation in a process only.
[[maybe_unused]] const CURLcode g_Initialised =
    curl_global_init_mem(CURL_GLOBAL_ALL, &Allocate, &Free, &Reallocate, &Duplicate, &AllocateZeroed);

} // namespace

// curl_easy_setopt() with a number in the place of the enumerator, behind which C++ leaves va_start() undefined; both
// are passed alike.
extern "C" CURLcode TakeOption(CURL* handle, unsigned int number, ...) __asm__("curl_easy_setopt");

extern "C" CURLcode TakeOption(CURL* handle, unsigned int number, ...)
{
    static auto* const next = NextFunction("curl_easy_setopt", &(curl_easy_setopt));
    const auto option = static_cast<CURLoption>(number);
    CurlOptionRecorder::Call call{handle, option, 0, nullptr, {}, {}, CURLE_OK};
    va_list args;
    va_start(args, number);
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        const long value = va_arg(args, long);
        call.m_Integer = value;
        call.m_Result = next(handle, option, value);
    } else if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
        const curl_off_t value = va_arg(args, curl_off_t);
        call.m_Integer = value;
        call.m_Result = next(handle, option, value);
    } else {
        void* value = va_arg(args, void*);
        call.m_Pointer = value;
        call.m_Result = next(handle, option, value);
    }
    va_end(args);
    const CURLcode result = call.m_Result;
    const std::lock_guard<std::mutex> lock(g_Lock);
    if (g_IsRecording)
        Record(std::move(call));
    return result;
}

CurlOptionRecorder::CurlOptionRecorder()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_Calls.clear();
    g_IsRecording = true;
}

CurlOptionRecorder::~CurlOptionRecorder()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_IsRecording = false;
    g_Calls.clear();
}

std::vector<CurlOptionRecorder::Call> CurlOptionRecorder::GetCalls() const
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    return g_Calls;
}

CurlOptionRecorder::Call CurlOptionRecorder::GetLast(CURLoption option) const
{
    Call last{nullptr, option, 0, nullptr, {}, {}, CURLE_OK};
    for (const Call& call : GetCalls())
        if (call.m_Option == option)
            last = call;
    return last;
}

std::vector<CURLoption> CurlOptionRecorder::GetOptions() const
{
    std::vector<CURLoption> options;
    for (const Call& call : GetCalls())
        options.push_back(call.m_Option);
    return options;
}

CurlMemoryLimit::CurlMemoryLimit(int allowed)
{
    g_HasFailed.store(false);
    g_Allowed.store(allowed);
}

CurlMemoryLimit::~CurlMemoryLimit()
{
    g_Allowed.store(std::numeric_limits<int>::max());
}

bool CurlMemoryLimit::HasFailed() const
{
    return g_HasFailed.load();
}

int CountCurlBlocks()
{
    return g_Blocks.load();
}
