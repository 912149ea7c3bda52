// Compares the conversions and measures of runs with plain loops over the functions for single code points.

#include <QDPlatform/QDString.h>

#include "support/ExactCopy.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace
{

unsigned Encode(int cp, uint8_t* out)
{
    return qd_encode_utf8(cp, out);
}

unsigned Encode(int cp, uint16_t* out)
{
    return qd_encode_utf16(cp, out);
}

unsigned Encode(int cp, uint32_t* out)
{
    *out = static_cast<uint32_t>(cp);
    return 1;
}

int Decode(const uint8_t*& p, const uint8_t* end)
{
    return qd_decode_utf8(p, end);
}

int Decode(const uint16_t*& p, const uint16_t* end)
{
    return qd_decode_utf16(p, end);
}

int Decode(const uint32_t*& p, const uint32_t*)
{
    return static_cast<int>(*p++);
}

template<class To, class From>
std::vector<To> ConvertPlainly(const From* src, unsigned size, unsigned capacity)
{
    const From* const end = src + size;
    std::vector<To> result;
    while (src < end) {
        To encoded[4];
        const unsigned count = Encode(Decode(src, end), encoded);
        if (result.size() + count > capacity)
            break;
        result.insert(result.end(), encoded, encoded + count);
    }
    return result;
}

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

template<class To, class From>
void Compare(unsigned (*convert)(const From*, unsigned, To*, unsigned),
             unsigned (*measure)(const From*, unsigned, unsigned), const From* src, unsigned size, unsigned capacity)
{
    constexpr To kUntouched = static_cast<To>(0x5A5A5A5A);
    const std::vector<To> expected = ConvertPlainly<To>(src, size, capacity);
    const std::unique_ptr<To[]> dst(new To[capacity]);
    std::fill_n(dst.get(), capacity, kUntouched);

    const unsigned written = convert(src, size, dst.get(), capacity);

    Require(written == expected.size());
    Require(std::equal(expected.begin(), expected.end(), dst.get()));
    Require(std::count(dst.get() + written, dst.get() + capacity, kUntouched) == capacity - written);
    Require(measure(src, size, capacity) == written);
}

} // namespace

// The first two bytes are the capacity, the rest is the text in each of the encodings.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const unsigned capacity = (data[0] | static_cast<unsigned>(data[1]) << 8) % 1024;
    data += 2;
    size -= 2;

    const auto utf8 = ExactCopy<uint8_t>(data, size);
    const auto utf16 = ExactCopy<uint16_t>(data, size / 2);
    const auto utf32 = ExactCopy<uint32_t>(data, size / 4);
    const unsigned utf8Size = static_cast<unsigned>(size);
    Compare<uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, utf8.get(), utf8Size, capacity);
    Compare<uint32_t>(qd_utf32_from_utf8, qd_utf32len_of_utf8, utf8.get(), utf8Size, capacity);
    Compare<uint8_t>(qd_utf8_from_utf16, qd_utf8len_of_utf16, utf16.get(), utf8Size / 2, capacity);
    Compare<uint32_t>(qd_utf32_from_utf16, qd_utf32len_of_utf16, utf16.get(), utf8Size / 2, capacity);
    Compare<uint8_t>(qd_utf8_from_utf32, qd_utf8len_of_utf32, utf32.get(), utf8Size / 4, capacity);
    Compare<uint16_t>(qd_utf16_from_utf32, qd_utf16len_of_utf32, utf32.get(), utf8Size / 4, capacity);
    return 0;
}
