/* The doctor's section on how the process of an event is known; doctor.h. */

#include <unistd.h>

#include "agent/process_connector.h"
#include "doctor.h"

namespace cli
{

ProcessFacts gather_processes()
{
    ProcessFacts facts;
    agent::ProcessConnector().open(facts.connector_error);
    facts.root = geteuid() == 0;
    return facts;
}

Checks judge_processes(const ProcessFacts &facts)
{
    Check check = {"processes", "connector", State::kOk, "processes that have ended are known, too", "", true};
    if (facts.connector_error.empty())
        return {check};
    check.state = State::kWarn;
    check.text = facts.connector_error + "; a process that has ended before its event is read is not known";
    check.remedy = facts.root ? "run fmon on the host itself, or give it CAP_NET_ADMIN" : "run as root";
    return {check};
}

}  // namespace cli
