/*
 * doctor_options.h: the command line of `fmon doctor`, read into one structure.
 */
#ifndef CLI_DOCTOR_OPTIONS_H
#define CLI_DOCTOR_OPTIONS_H

#include "cli/front/verb.h"

namespace cli
{

struct DoctorOptions {
    bool json = false, help = false;
};

extern const VerbOf<DoctorOptions> kDoctor;

int run_doctor(const DoctorOptions &options);

}  // namespace cli

#endif
