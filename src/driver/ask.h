// One question of the interactive dialogue.
#pragma once

#include <istream>
#include <ostream>
#include <string>

#include "common/settings.h"

namespace mixrank {

// Prints the prompt (no newline) and reads one answer by formatted
// extraction. An answer that cannot be read (input ended, or text where a
// number is wanted) ends the run with one clear line instead of carrying on
// with an unset value; `what` names the question in that line.
template <class T>
void ask(std::istream& in, std::ostream& out, const char* prompt, const char* what, T& answer)
{
    out << prompt << std::flush;
    if (!(in >> answer)) throw RunError(std::string("no usable answer to the question for ") + what);
}

}  // namespace mixrank
