#include "common/format.h"

#include <cstdarg>
#include <cstdio>

namespace mixrank {

std::string format(const char* spec, ...)
{
    va_list args, again;
    va_start(args, spec);
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, spec, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, spec, again);
    va_end(again);
    return text;
}

}  // namespace mixrank
