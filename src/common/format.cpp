#include "common/format.h"

#include <cstdarg>
#include <cstdio>

namespace mixrank {

std::string format(const char* pattern, ...)
{
    va_list args, again;
    va_start(args, pattern);
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

}  // namespace mixrank
