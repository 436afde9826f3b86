#include "driver/dialogue.h"

#include "driver/ask.h"

namespace mixrank {

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
