#include "syslog_form.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string_view>

namespace output
{

namespace
{

constexpr const char *kFacilities[] = {"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                       "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                       "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                       "local2", "local3", "local4", "local5", "local6",   "local7"};
constexpr int kWarning = 4, kInformation = 6;

// Printable ASCII without blanks, of that length at most; "-" where there is nothing.
std::string name_of(std::string_view text, size_t longest)
{
    std::string name;
    for (const char byte : text.substr(0, longest))
        name += byte > ' ' && byte < '\x7f' ? byte : '_';
    return name.empty() ? "-" : name;
}

void append_value(std::string_view value, std::string &out)
{
    for (const char byte : value) {
        if (byte == '"' || byte == '\\' || byte == ']')
            out += '\\';
        out += byte;
    }
}

}  // namespace

int facility_of(const std::string &name)
{
    for (size_t i = 0; i < std::size(kFacilities); i++)
        if (name == kFacilities[i])
            return static_cast<int>(i);
    return -1;
}

SyslogForm::SyslogForm(Kind kind, int facility, const std::string &program, const Origin &origin)
    : kind_(kind),
      facility_(facility),
      names_(" " + name_of(origin.host, 255) + " " + name_of(program, 48) + " " + std::to_string(getpid()) + " "),
      tag_(name_of(program, 32) + "[" + std::to_string(getpid()) + "]: "),
      instance_(origin.instance)
{
}

void SyslogForm::append(const Record &record, std::string &out)
{
    const std::string_view type = record.type;
    out += '<';
    out += std::to_string(facility_ * 8 + (type == "loss" ? kWarning : kInformation));
    out += '>';
    if (kind_ == Kind::kRfc5424)
        append_5424(record, out);
    else
        append_3164(record, out);
    out += record.text.substr(0, record.text.size() - (record.text.empty() ? 0 : 1));
}

// A time has six digits behind the second at most. The number after the element's name is the one that is set aside for
// those who have none of their own.
void SyslogForm::append_5424(const Record &record, std::string &out)
{
    out += "1 ";
    time_.append(record.time_ns, out);
    out.replace(out.size() - 4, 3, "");
    out += names_;
    out += name_of(record.type, 32);
    out += " [fmon@32473 instance=\"";
    append_value(instance_, out);
    out += "\" number=\"";
    out += std::to_string(record.number);
    out += "\"] ";
}

// "Jan  2 03:04:05 fmon[12]: ", in local time, whatever the language.
void SyslogForm::append_3164(const Record &record, std::string &out) const
{
    static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t second = static_cast<time_t>(record.time_ns / 1'000'000'000);
    struct tm local = {};
    localtime_r(&second, &local);
    char text[32];
    snprintf(text, sizeof text, "%s %2d %02d:%02d:%02d ", kMonths[local.tm_mon % 12], local.tm_mday, local.tm_hour,
             local.tm_min, local.tm_sec);
    out += text;
    out += tag_;
}

}  // namespace output
