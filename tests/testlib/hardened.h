/*
 * hardened.h: which of the monitor's two ways the test program runs: as established, or hardened (fmon.hardened). CTest
 * runs the programs concerned both ways, the second time as the case unit.NAME.hardened. Where an expectation differs,
 * the case asks hardened().
 */
#ifndef TESTLIB_HARDENED_H
#define TESTLIB_HARDENED_H

namespace testlib
{

/* Whether FMON_TEST_HARDENED is 1 in the environment. The monitors of backend.h and fake_backend.h start so. */
bool hardened();

}  // namespace testlib

#endif
