/*
 * syslog_form.h: records as messages of RFC 5424, or as those of the C library's syslog().
 */
#ifndef OUTPUT_SINKS_SYSLOG_FORM_H
#define OUTPUT_SINKS_SYSLOG_FORM_H

#include <string>

#include "agent/time_format.h"
#include "output/sink.h"

namespace output
{

/* 0 to 23, or -1: no facility has that name. */
int facility_of(const std::string &name);

class SyslogForm
{
public:
    enum class Kind {
        kRfc5424,
        kRfc3164, /* what the C library writes, and what is understood on most machines' own sockets */
    };

    SyslogForm(Kind kind, int facility, const std::string &program, const Origin &origin);

    /* Appends the message of a record: its text without the last byte, which ends a record; losses as warnings, all
     * else as information. */
    void append(const Record &record, std::string &out);

private:
    void append_5424(const Record &record, std::string &out);
    void append_3164(const Record &record, std::string &out) const;

    const Kind kind_;
    const int facility_;
    const std::string names_; /* " HOST PROGRAM PID " */
    const std::string tag_;   /* "PROGRAM[PID]: " */
    const std::string instance_;
    agent::UtcTime time_;
};

}  // namespace output

#endif
