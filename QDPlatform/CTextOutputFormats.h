#pragma once

#include <QDPlatform/QDTimestamp.h>

#include <cstdint>

// The number and date formats of CTextOutput, without the C library's formatter and the locale that it heeds.
//
// None writes a terminator. Each says how many bytes of room `out` must have.

// Room for the longest text of qd_write_exponent_form().
constexpr unsigned int kExponentFormCapacity = 64;

// Writes a finite number as "%.<fractionDigits>e" does in the "C" locale with rounding to nearest. fractionDigits: 1 to
// 14. out: kExponentFormCapacity bytes. Returns the length.
unsigned int qd_write_exponent_form(double value, int fractionDigits, char* out);

// Writes the value in `digits` decimal digits, with leading zeros; more digits of it are cut. out: `digits` bytes.
// Returns the end.
char* qd_write_decimal(char* out, uint32_t value, unsigned int digits);

// Writes the value in upper-case hexadecimal digits, `digits` or as many as it takes. out: `digits` bytes, and not less
// than 8. Returns the end.
char* qd_write_hex(char* out, uint32_t value, unsigned int digits);

// Lengths of all texts of qd_write_date() and of qd_write_date_and_time().
constexpr unsigned int kDateLength = 10;
constexpr unsigned int kDateAndTimeLength = 23;

// Write 2020-03-04, and 2020-03-04 05:06:07.008 with the separator in place of the blank; the year is "****" beyond
// 9999. out: kDateLength and kDateAndTimeLength bytes. Return the end.
char* qd_write_date(char* out, const CQDTimestamp::TimestampStruct& fields);
char* qd_write_date_and_time(char* out, const CQDTimestamp::TimestampStruct& fields, char separator);

// The parts of a number such as -1.50000000000000e+03, as pointers into its text.
struct ExponentForm
{
    const char* m_pPoint;
    const char* m_pMantissaEnd; // without the zeros at the end of the fraction, and without a point that ends it
    const char* m_pExponent;    // the "e"
    int m_Exponent;             // the decimal number behind it, cut to +-100000; 0 when there is none
};

// Finds the first "." and the first "e" of any text. Returns false, with `form` untouched, when one of them is missing.
bool qd_find_exponent_form(const char* text, const char* end, ExponentForm& form);
