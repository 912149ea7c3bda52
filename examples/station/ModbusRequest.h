#pragma once

#include "BigEndian.h"

class ProcessImage;

// Carries out one Modbus request, without its frame, and returns the answer, without its frame.
//
// Knows the functions 1 to 6, 15 and 16. What cannot be done is answered with an exception: the function code with its
// high bit set, and one of
//   1  the station does not know the function
//   2  the addresses reach beyond the table; nothing was written
//   3  a size, quantity, byte count or value is wrong; nothing was written
//   4  the registers could not be kept; nothing was written
// request: at least the function code. Thread: any; each request is one call of the image.
ByteBuffer AnswerModbusRequest(ByteView request, ProcessImage& image);
