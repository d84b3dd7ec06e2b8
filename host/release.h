/*
 * release.h: the kernel's release as plug-ins are handed it.
 */
#ifndef HOST_RELEASE_H
#define HOST_RELEASE_H

#include <string>
#include <string_view>

namespace host
{

/* MAJOR.MINOR.PATCH-BUILD and anything behind it, with the numbers that `kernel` begins with: as it is where it has
 * that shape; else "-0" stands for the build that it does not name, ".0" for a patch: "6.12.107+deb13" becomes
 * "6.12.107-0+deb13". What does not begin with MAJOR.MINOR stays as it is. */
std::string plugin_release(std::string_view kernel);

}  // namespace host

#endif
