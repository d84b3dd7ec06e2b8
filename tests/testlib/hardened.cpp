#include "testlib/hardened.h"

#include <cstdlib>
#include <cstring>

bool testlib::hardened()
{
    const char *value = getenv("FMON_TEST_HARDENED");
    return value && strcmp(value, "1") == 0;
}
