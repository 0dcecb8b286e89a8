#include "logging/LineHeader.h"

namespace OrvaneInternal {

namespace {

// Decimal, left-padded with zeros to `width`; like "%0*lu" without the cost of
// printf on every caller's path.
char* PutDigits(char* out, unsigned long value, int width)
{
    char digits[20];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count < width)
        digits[count++] = '0';
    while (count > 0)
        *out++ = digits[--count];
    return out;
}

// Like "%0*d": the sign takes one place of the width.
char* PutField(char* out, int value, int width)
{
    if (value >= 0)
        return PutDigits(out, static_cast<unsigned long>(value), width);
    *out++ = '-';
    return PutDigits(out, static_cast<unsigned long>(-static_cast<long>(value)), width - 1);
}

} // namespace

LineHeader::LineHeader(const datetime& time, unsigned long threadId)
{
    const struct {
        int value;
        int width;
        char after;
    } fields[] = {{time.year, 1, '-'},   {time.month, 2, '-'},  {time.day, 2, ' '},        {time.hour, 2, ':'},
                  {time.minute, 2, ':'}, {time.second, 2, '.'}, {time.millisecond, 3, ' '}};
    char* p = m_text;
    for (const auto& field : fields) {
        p = PutField(p, field.value, field.width);
        *p++ = field.after;
    }
    *p++ = '(';
    p = PutDigits(p, threadId, 4);
    *p++ = ')';
    *p++ = ':';
    *p++ = ' ';
    m_length = static_cast<std::size_t>(p - m_text);
}

} // namespace OrvaneInternal
