#include "driver/dialogue.h"

#include <string>

#include "common/settings.h"

namespace mixrank {

namespace {

// Prints the prompt (no newline) and reads one answer by formatted
// extraction. An answer that cannot be read (input ended, or text where a
// number is wanted) ends the run with one clear line instead of carrying on
// with an unset value.
template <class T>
void ask(std::istream& in, std::ostream& out, const char* prompt, const char* what, T& answer)
{
    out << prompt << std::flush;
    if (!(in >> answer)) throw RunError(std::string("no usable answer to the question for ") + what);
}

}  // namespace

void ask_max(RunConfig& config, std::istream& in, std::ostream& out)
{
    ask(in, out, "\n\nMax no.  of components to be fitted:", "the number of components", config.max);
    check_max(config, "the number of components typed in the dialogue");
    check_settings(config, true);
}

void ask_source(RunConfig& config, std::istream& in, std::ostream& out)
{
    ask(in, out, "Do you want to get the estimates from a file [Y/N/C] :", "the parameter source",
        config.EstMethod);
    ask(in, out,
        "\nGive the name of the parameterfile to store the parameters or stored parameters:",
        "the parameter file", config.paramfile);
}

void ask_starts(RunConfig& config, std::istream& in, std::ostream& out)
{
    ask(in, out, "\nNo of Random Starts:", "the number of random starts", config.nornd);
    ask(in, out, "\nNo of kmeans start:", "the number of K-means starts", config.nokmn);
    check_settings(config, true);
}

}  // namespace mixrank
