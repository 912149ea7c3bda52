#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

// Keeps every call of curl_easy_setopt() in the process as long as it lives; the calls go on to libcurl. For settings
// that no server sees. One recorder at a time.
//
// A test that uses it links CurlOptionRecorder.cpp (qd-test-curl), which defines the function and so stands in front of
// libcurl's.
class CurlOptionRecorder
{
public:
    struct Call
    {
        CURL* m_Handle;
        CURLoption m_Option;
        long long m_Integer;             // of an option that takes a long or a curl_off_t
        const void* m_Pointer;           // of all others
        std::string m_Text;              // where that is a text
        std::vector<std::string> m_List; // where that is a curl_slist
        CURLcode m_Result;
    };

    CurlOptionRecorder();
    CurlOptionRecorder(const CurlOptionRecorder&) = delete;
    CurlOptionRecorder& operator=(const CurlOptionRecorder&) = delete;
    ~CurlOptionRecorder();

    std::vector<Call> GetCalls() const;

    // The last call with this option; one with a null handle when there was none.
    Call GetLast(CURLoption option) const;

    // The options in the order of the calls.
    std::vector<CURLoption> GetOptions() const;
};

// Makes libcurl's allocations fail, in the whole process, once `allowed` more have succeeded, as long as it lives.
//
// The same source file makes libcurl allocate through functions of its own, before main() starts.
class CurlMemoryLimit
{
public:
    explicit CurlMemoryLimit(int allowed);
    CurlMemoryLimit(const CurlMemoryLimit&) = delete;
    CurlMemoryLimit& operator=(const CurlMemoryLimit&) = delete;
    ~CurlMemoryLimit();

    // True once an allocation was made to fail.
    bool HasFailed() const;
};

// The blocks that libcurl has allocated and not freed.
int CountCurlBlocks();
