/* `fmon stats`: asks, and prints in the form that was asked for. */

#include "agent/message.h"
#include "output/print.h"
#include "output/stats_text.h"
#include "stats_client.h"
#include "stats_options.h"

namespace cli
{

namespace
{

constexpr uint64_t kPatienceMs = 5000;

bool format(StatsForm form, const std::string &answer, std::string &text)
{
    if (form == StatsForm::kPrometheus)
        return output::prometheus_text(answer, text);
    const bool is_known = output::stats_text(answer, text);
    if (form == StatsForm::kJson)
        text = answer + "\n";
    return is_known;
}

}  // namespace

int run_stats(const StatsOptions &options)
{
    std::string answer, error, text;
    if (ask_service(options.socket, kPatienceMs, answer, error) && !format(options.form, answer, text))
        error = "what listens at " + options.socket + " is no fmon run";
    if (error.empty())
        return output::print_out(text);
    agent::complain(error);
    return agent::kError;
}

}  // namespace cli
